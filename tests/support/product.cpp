// product.cpp -- installing, starting over, and reading the service's log.

#include "tests/support/product.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <regex>

#include "tests/support/capture.h"
#include "tests/support/sandboxRoot.h"
#include "tests/support/scratchDir.h"

namespace fs = std::filesystem;

namespace {

void StopServices() {
  for (const pid_t pid : Services()) kill(pid, SIGKILL);
  EXPECT_TRUE(Eventually([] { return Services().empty(); }));
}

}  // namespace

void InstallProgram(const char *which, const std::string &path, mode_t mode) {
  const char *const source = getenv(which);
  ASSERT_NE(nullptr, source) << which << " is not set";
  fs::create_directories(fs::path(path).parent_path());
  fs::remove(path);
  fs::copy_file(source, path);
  ASSERT_EQ(0, chown(path.c_str(), 0, 0));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

std::vector<pid_t> Services() {
  std::vector<pid_t> found;
  for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != name.npos) continue;
    const std::string arguments = ReadFile(entry.path() / "cmdline");
    if (arguments.c_str() == kStagedDaemon) found.push_back(std::stoi(name));
  }
  return found;
}

std::string ServiceLog() {
  return WithoutStamps(ReadFile(kServiceLogPath));
}

std::string EndRecord(const std::string &content) {
  uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const char c : content) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  char line[100];
  snprintf(line, sizeof line, ": end after %zu bytes, FNV-1a %016" PRIx64 ", ", content.size(),
           hash);
  return line;
}

bool ServiceRead(const std::string &content) {
  return ServiceLogged(EndRecord(content));
}

bool ServiceLogged(const std::string &text) {
  return Eventually([&] { return Count(ServiceLog(), text) > 0; });
}

size_t Count(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) count++;
  return count;
}

Launch OpenerLaunch(int fd, int number) {
  Launch launch;
  launch.argv = {kOpenerPath};
  launch.user = kUser;
  // The leak checker of a sanitizer build attaches to its own process, which a set-user-ID program
  // may not do.
  launch.env = {"ASAN_OPTIONS=detect_leaks=0"};
  if (fd >= 0) {
    launch.argv.push_back(std::to_string(number));
    launch.adjust = [fd, number] {
      dup2(fd, number);
      fcntl(number, F_SETFD, 0);  // which dup2 has not done if the two are one
    };
  }
  return launch;
}

Outcome Finish(Process *process) {
  const int status = process->Wait();
  static const std::regex start(R"(^ServiceImpl_Opener: PID \d+\n)");
  return {status, std::regex_replace(WithoutStamps(process->Output()), start, "")};
}

Outcome OutcomeOf(const Launch &launch) {
  Process process(launch);
  return Finish(&process);
}

std::ostream &operator<<(std::ostream &out, const Outcome &outcome) {
  return out << "status " << outcome.status << ", records \"" << outcome.records << "\"";
}

void ProductTest::SetUp() {
  ASSERT_EQ(0, access(kSandboxMark, F_OK)) << "run this program through lumen-sandbox";
  Reset();
}

void ProductTest::TearDown() {
  StopServices();
}

// Staging is not part of this: the daemon is put where staging would put it.
void ProductTest::Reset() {
  StopServices();
  for (const std::string &path : {kSocketPath, kLockPath, kServiceLogPath, kProbeReport})
    fs::remove(path);
  InstallProgram("LUMEN_OPENER", kOpenerPath, 04755);
  InstallProgram("LUMEN_SERVICE", kBundleDaemon);
  InstallProgram("LUMEN_SERVICE", kStagedDaemon);
}
