// process.cpp -- fork, become the user, exec.

#include "tests/support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <system_error>

namespace {

[[noreturn]] void Fail(const char *call) {
  throw std::system_error(errno, std::generic_category(), call);
}

std::vector<char *> Pointers(const std::vector<std::string> &words) {
  std::vector<char *> pointers;
  for (const std::string &word : words) pointers.push_back(const_cast<char *>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void Become(const Launch &launch, int output) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  if (launch.user != 0 &&
      (setgroups(0, nullptr) != 0 || setresgid(launch.user, launch.user, launch.user) != 0 ||
       setresuid(launch.user, launch.user, launch.user) != 0)) {
    _exit(126);
  }
  launch.adjust();
  const auto argv = Pointers(launch.argv);
  const auto env = Pointers(launch.env);
  execve(argv[0], argv.data(), env.data());
  _exit(127);
}

}  // namespace

// The order of writes to standard output and error is kept by their sharing one open file.
Process::Process(const Launch &launch) : output_(memfd_create("output", MFD_CLOEXEC)) {
  if (!output_) Fail("memfd_create");
  fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) Fail("fork");
  if (pid_ == 0) Become(launch, output_.Get());
}

Process::~Process() {
  if (pid_ < 0) return;
  Signal(SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string Process::Output() const {
  std::string text;
  char piece[4096];
  for (ssize_t got;
       (got = pread(output_.Get(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0;) {
    text.append(piece, static_cast<size_t>(got));
  }
  return text;
}

bool Process::Running() const {
  siginfo_t info = {};
  return pid_ >= 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void Process::Signal(int signal) const {
  if (kill(pid_, signal) != 0) Fail("kill");
}

int Process::Wait() {
  if (!Eventually([this] { return !Running(); })) {
    ADD_FAILURE() << "process " << pid_ << " does not end; output so far: " << Output();
    Signal(SIGKILL);
  }
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0) {
    if (errno != EINTR) Fail("waitpid");
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
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
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2");
  read.Reset(ends[0]);
  write.Reset(ends[1]);
}

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator files("/dev/fd");
  return static_cast<size_t>(std::distance(begin(files), end(files)));
}

Fd FileWith(const std::string &content) {
  Fd file(memfd_create("content", MFD_CLOEXEC));
  if (!file ||
      write(file.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      lseek(file.Get(), 0, SEEK_SET) != 0) {
    Fail("memfd_create");
  }
  return file;
}
