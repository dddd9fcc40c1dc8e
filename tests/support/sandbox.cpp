// sandbox.cpp -- lumen-sandbox: runs a command where the product can be installed for real.
//
//   lumen-sandbox COMMAND [ARGUMENT...]
//
// The command runs as root with a root directory of its own (sandboxRoot.h) and in a PID namespace
// of its own, so that no daemon outlives it.  Exit status: the command's, or 128 and the number of
// the signal that ended it.  Where the host does not grant a sandbox: 77, which CTest counts as
// skipped, or 1 when LUMEN_REQUIRE_SANDBOX=1; 2 for wrong usage.
//
// Three processes: the outer one waits; "init", process 1 of the namespace, makes the root
// directory and reaps; the command.  Whoever is not root starts over inside a user namespace that
// has a range of user ids, made by unshare(1) with newuidmap(1).

#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/sandboxRoot.h"

namespace {

constexpr int kExitSkipped = 77;
constexpr int kExitUsage = 2;
constexpr int kExitCannotRun = 127;

// Set for the start inside a user namespace.
constexpr char kStartedOver[] = "LUMEN_SANDBOX_STARTED_OVER";
const std::vector<std::string> kUserNamespace = {"unshare", "--user", "--map-root-user",
                                                 "--map-auto"};

[[noreturn]] void CannotBeHad(const std::string &reason) {
  const char *const required = getenv("LUMEN_REQUIRE_SANDBOX");
  fprintf(stderr, "lumen-sandbox: no sandbox here: %s\n", reason.c_str());
  exit(required != nullptr && strcmp(required, "1") == 0 ? EXIT_FAILURE : kExitSkipped);
}

[[noreturn]] void CallFailed(const char *call) {
  CannotBeHad(std::string(call) + ": " + strerror(errno));
}

int StatusForExit(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Dies with the process that started it, whatever killed that.
void FollowParent() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
}

int WaitFor(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) CallFailed("waitpid");
  }
  return StatusForExit(status);
}

[[noreturn]] void RunProgram(const std::vector<std::string> &words) {
  std::vector<char *> args;
  for (const std::string &word : words) args.push_back(const_cast<char *>(word.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  fprintf(stderr, "lumen-sandbox: %s: %s\n", args[0], strerror(errno));
  _exit(kExitCannotRun);
}

[[noreturn]] void StartOverInUserNamespace(char *argv[]) {
  if (getenv(kStartedOver) != nullptr) CannotBeHad("the user namespace gives no root");
  std::vector<std::string> words = kUserNamespace;
  words.emplace_back("true");
  const pid_t attempt = fork();
  if (attempt == 0) RunProgram(words);
  if (attempt < 0 || WaitFor(attempt) != 0) {
    CannotBeHad("neither root nor a user namespace with a range of user ids");
  }
  setenv(kStartedOver, "1", 1);
  words.back() = std::filesystem::read_symlink("/proc/self/exe");
  for (argv++; *argv != nullptr; argv++) words.emplace_back(*argv);
  RunProgram(words);
}

// As process 1: its end is the end of every process in the namespace.
[[noreturn]] void RunAsInit(const std::vector<std::string> &command) {
  FollowParent();
  const std::filesystem::path directory = std::filesystem::current_path();
  try {
    SandboxRoot_Enter();
  } catch (const std::system_error &error) {
    CannotBeHad(error.what());
  }
  if (chdir(directory.c_str()) != 0 && chdir("/") != 0) CallFailed("chdir");

  const pid_t child = fork();
  if (child < 0) CallFailed("fork");
  if (child == 0) RunProgram(command);
  int status = 0;
  for (pid_t ended = -1; ended != child;) {
    ended = waitpid(-1, &status, 0);
    if (ended < 0 && errno != EINTR) CallFailed("waitpid");
  }
  exit(StatusForExit(status));
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc < 2) {
    fprintf(stderr, "usage: lumen-sandbox COMMAND [ARGUMENT...]\n");
    return kExitUsage;
  }
  if (geteuid() != 0) StartOverInUserNamespace(argv);
  unsetenv(kStartedOver);
  if (unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) CallFailed("unshare");
  // The opener's caller must not have root's groups, and nor must whoever runs it here.
  if (setgroups(0, nullptr) != 0) CallFailed("setgroups");

  // Signals of the terminal go to the command as well, which decides.
  signal(SIGINT, SIG_IGN);
  const pid_t init = fork();
  if (init < 0) CallFailed("fork");
  if (init == 0) {
    signal(SIGINT, SIG_DFL);
    RunAsInit({argv + 1, argv + argc});
  }
  return WaitFor(init);
}
