// process.cpp -- fork, become the user, exec.

#include "tests/support/process.h"

#include <grp.h>
#include <limits.h>
#include <sys/inotify.h>
#include <sys/wait.h>

#include <chrono>
#include <system_error>

#include "tests/support/test.h"

namespace {

std::vector<char *> Pointers(const std::vector<std::string> &words) {
  std::vector<char *> pointers;
  for (const std::string &word : words) pointers.push_back(const_cast<char *>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void Become(const Launch &launch, const Fd &output) {
  dup2(output.Get(), STDOUT_FILENO);
  dup2(output.Get(), STDERR_FILENO);
  if (launch.user != 0) BecomeUser(launch.user);
  launch.adjust();
  execve(launch.argv[0].c_str(), Pointers(launch.argv).data(), Pointers(launch.env).data());
  _exit(127);
}

}  // namespace

// Standard output and error share one open file, so that the order of writes is kept.
Process::Process(const Launch &launch) : output_(FileWith("")) {
  fflush(nullptr);
  pid_ = fork();
  Check(pid_ >= 0, "fork");
  if (pid_ == 0) Become(launch, output_);
}

Process::~Process() {
  if (pid_ < 0) return;
  Signal(SIGKILL);
  Wait();
}

std::string Process::Output() const {
  return ContentOf(output_);
}

bool Process::Running() const {
  siginfo_t info = {};
  return pid_ >= 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void Process::Signal(int signal) const {
  Check(kill(pid_, signal) == 0, "kill");
}

int Process::Wait() {
  if (!Eventually([this] { return !Running(); })) {
    ADD_FAILURE() << "process " << pid_ << " does not end; output so far: " << Output();
    Signal(SIGKILL);
  }
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0) Check(errno == EINTR, "waitpid");
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string OutputOf(const std::vector<std::string> &argv) {
  Process process({argv});
  EXPECT_EQ(0, process.Wait()) << process.Output();
  return process.Output();
}

void Check(bool ok, const char *call) {
  if (!ok) throw std::system_error(errno, std::generic_category(), call);
}

void BecomeUser(uid_t user) {
  if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 ||
      setresuid(user, user, user) != 0) {
    _exit(126);
  }
}

bool Eventually(const std::function<bool()> &condition) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(Process::kTimeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    usleep(2000);
  }
  return true;
}

Pipe::Pipe() {
  int ends[2];
  Check(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
  read.Reset(ends[0]);
  write.Reset(ends[1]);
}

size_t OpenDescriptors() {
  return FilesOf(getpid()).size();
}

std::map<int, std::string> FilesOf(pid_t pid) {
  std::map<int, std::string> files;
  for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code closed;
    const std::string target = fs::read_symlink(entry.path(), closed);
    files[std::stoi(entry.path().filename())] = target.substr(0, target.find(":["));
  }
  return files;
}

Watch::Watch(const std::vector<std::string> &paths, uint32_t what)
    : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  for (const std::string &path : paths) {
    Check(inotify_add_watch(events_.Get(), path.c_str(), what) >= 0, path.c_str());
  }
}

bool Watch::Seen() const {
  alignas(inotify_event) char buffer[sizeof(inotify_event) + NAME_MAX + 1];
  return read(events_.Get(), buffer, sizeof buffer) > 0;
}
