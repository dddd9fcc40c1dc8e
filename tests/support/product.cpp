// product.cpp -- installs and resets the product, and reads the service's log.

#include "tests/support/product.h"

#include <cinttypes>
#include <memory>
#include <ostream>

namespace {

constexpr char kPrelude[] = R"sh(
  set -e
  app='/Applications/Zephrin Lumen Client.app'
  daemon='Zephrin Lumen Client Services'
  root='/Library/Application Support/Zephrin/Zephrin Calder Lumen'
  anchors=/etc/zephrin/code-signing-anchors.pem
  authority=/run/authority # outside of all folders of the product
  sign() {
    "$LUMEN_BUILD/tools/codeseal" sign --key "$authority/${3-valid}.key" \
      --cert "$authority/${3-valid}.pem" --identifier "$1" "$2"
  }
  # The root of a user namespace cannot make devices: a FIFO takes their place.
  makeDevice() { mknod -m 600 "$1" c 1 3 2>/dev/null || mkfifo -m 600 "$1"; }
  mkdir -p "$app/Contents/Library"
  cd "$app/Contents/Library"
)sh";

// The authority, and the bundle that is copied for each test, are made once.
constexpr char kInstall[] = R"sh(
  if ! test -d /run/bundle; then
    "$LUMEN_SUPPORT/makeAuthority" "$authority"
    "$LUMEN_SUPPORT/makeBundle" "$LUMEN_BUILD" "$authority" /run/bundle
  fi
  rm -f "$anchors"
  install -m 644 "$authority/root.pem" "$anchors"
  mkdir -p "${root%/*}"
  rm -rf "$app"
  cp -a /run/bundle "$app"
)sh";

}  // namespace

void Shell(const std::string &commands) {
  EXPECT_EQ(0, system((kPrelude + commands).c_str())) << commands;
}

void ShellAsUser(const std::string &commands) {
  Process shell({{"/bin/sh", "-ec", "cd '" + kBundleLibrary + "'; " + commands},
                 kUser,
                 {"PATH=/usr/bin:/bin"}});
  EXPECT_EQ(0, shell.Wait()) << commands << shell.Output();
}

void InstallBundle() {
  Shell(kInstall);
}

void InstallProbe() {
  Shell(R"(install "$LUMEN_SUPPORT/probeDaemon" "$daemon"; sign "$daemon" "$daemon")");
}

void InstallOpener(const std::string &program) {
  Shell("install -m 4755 \"$LUMEN_BUILD/tests/system/" + program + "\" lumenClient-opener");
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

size_t Count(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) count++;
  return count;
}

Launch OpenerLaunch(Fd file, const std::function<void()> &adjust, int number) {
  // LeakSanitizer attaches to its own process, which is not possible in a set-user-ID program.
  Launch launch = {{kOpenerPath}, kUser, {"ASAN_OPTIONS=detect_leaks=0"}};
  if (file) launch.argv.push_back(std::to_string(number));
  const auto shared = std::make_shared<Fd>(std::move(file));
  launch.adjust = [=] {
    if (*shared) {
      dup2(shared->Get(), number);
      fcntl(number, F_SETFD, 0);  // dup2 does not if both are the same
    }
    adjust();
  };
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
  ASSERT_EQ(0, access(kSandboxMark, F_OK)) << "run this program through tests/support/sandbox";
  Reset();
}

void ProductTest::TearDown() {
  StopServices();
}

void ProductTest::Reset() {
  StopServices();
  Shell(R"(rm -rf /var/run/Zephrin* /var/run/probe.report "$root")");
  InstallBundle();
}
