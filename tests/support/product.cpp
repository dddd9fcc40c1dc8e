// product.cpp -- installing, starting over, and reading the service's log.

#include "tests/support/product.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

// Outside of what tests take for the product.
const std::string kAuthority = "/run/authority";

std::string Given(const char *variable) {
  const char *const value = getenv(variable);
  EXPECT_NE(nullptr, value) << variable << " is not set";
  return value == nullptr ? "" : value;
}

void RunTool(const std::vector<std::string> &command) {
  Launch launch;
  launch.argv = command;
  launch.env = {"PATH=/usr/bin:/bin"};
  Process process(launch);
  EXPECT_EQ(0, process.Wait()) << command[0] << ": " << process.Output();
}

// The bundle to copy, and an authority; both are made once.
void MakeTemplate() {
  if (fs::exists(kTemplate)) return;
  const std::string support = Given("LUMEN_SUPPORT") + "/";
  RunTool({support + "makeAuthority", kAuthority});
  RunTool({support + "makeBundle", Given("LUMEN_BUILD"), kAuthority, kTemplate});
}

void TrustAuthority() {
  fs::remove(kAnchors);
  fs::copy_file(kAuthority + "/root.pem", kAnchors);
  ASSERT_EQ(0, chmod(kAnchors.c_str(), 0644));
}

}  // namespace

int Rounds() {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  return rounds == nullptr ? 1 : std::max(1, atoi(rounds));
}

void InstallBundle() {
  MakeTemplate();
  TrustAuthority();
  fs::create_directories(fs::path(kInstallRoot).parent_path());
  fs::remove_all(kBundle);
  RunTool({"/bin/cp", "-a", kTemplate, kBundle});
}

void InstallProgram(const char *which, const std::string &path, mode_t mode) {
  const std::string source = Given(which);
  fs::create_directories(fs::path(path).parent_path());
  fs::remove(path);
  fs::copy_file(source, path);
  ASSERT_EQ(0, chown(path.c_str(), 0, 0));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

void Sign(const std::string &path, const std::string &identifier, const std::string &signer) {
  const std::string key = kAuthority + "/" + signer;
  RunTool({Given("LUMEN_BUILD") + "/tools/codeseal", "sign", "--key", key + ".key", "--cert",
           key + ".pem", "--identifier", identifier, path});
}

void InstallDaemon(const char *which) {
  InstallProgram(which, kBundleDaemon);
  Sign(kBundleDaemon, kBundleDaemon.substr(kBundleLibrary.size() + 1));
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

void StopServices() {
  for (const pid_t pid : Services()) kill(pid, SIGKILL);
  EXPECT_TRUE(Eventually([] { return Services().empty(); }));
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
  static const std::regex start(
      R"(^ServiceImpl_Opener: PID \d+\n|constructWorkingDir: [^\n]* construction complete.\n)");
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

void ProductTest::Reset() {
  StopServices();
  for (const std::string &path : {kSocketPath, kLockPath, kServiceLogPath, kProbeReport})
    fs::remove(path);
  fs::remove_all(kInstallRoot);
  InstallBundle();
}
