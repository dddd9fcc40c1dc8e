// sealVerifier.cpp -- runs the program that checks seals.
//
// Its answer is a byte in a pipe, not its exit status: whoever started this program may have had
// SIGCHLD ignored, and then nobody is told the status.

#include "platform/linux/sealVerifier.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "fd.h"
#include "platform/process.h"

namespace {

constexpr unsigned kExecutable = 0x10;  // MFD_EXEC, which older headers lack

// Above the descriptors that the child fills.
Fd Raised(int fd) {
  return Fd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

// The image as a file that exists in memory only; empty on failure.
Fd ImageFile() {
  // Older kernels do not know MFD_EXEC, newer ones may insist on it.
  Fd fd(memfd_create("seal-verifier", MFD_CLOEXEC | kExecutable));
  if (!fd && errno == EINVAL) fd.Reset(memfd_create("seal-verifier", MFD_CLOEXEC));
  if (!fd) return fd;
  for (std::string_view rest = SealVerifierImage(); !rest.empty();) {
    const ssize_t n = write(fd.Get(), rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Fd();
    rest.remove_prefix(static_cast<size_t>(n));
  }
  return Raised(fd.Get());
}

// The same file for all checks of this process: each write of the image costs as much as a check.
// -1 on failure.
int KeptImage() {
  static constinit std::atomic<int> kept = -1;
  int fd = kept.load(std::memory_order_acquire);
  if (fd >= 0) return fd;
  Fd made = ImageFile();
  // Of two threads that come at once, one keeps its own.
  if (made && kept.compare_exchange_strong(fd, made.Get(), std::memory_order_acq_rel)) {
    fd = made.Release();
  }
  return fd;
}

// In the child.
[[noreturn]] void Become(int image, int item, int answer, const char *identifier) {
  char name[] = "seal-verifier";
  char *const argv[] = {name, const_cast<char *>(identifier), nullptr};
  char *const envp[] = {nullptr};
  if (dup2(item, kSealItemFd) >= 0 && dup2(answer, kSealAnswerFd) >= 0) {
    Platform_CloseDescriptorsExcept(&image, 1);
    execveat(image, "", argv, envp, AT_EMPTY_PATH);
  }
  _exit(EXIT_FAILURE);
}

// Until the other end is closed or has said something.
bool Accepted(int answer) {
  char byte = 0;
  ssize_t n = 0;
  do {
    n = read(answer, &byte, 1);
  } while (n < 0 && errno == EINTR);
  return n == 1 && byte == kSealAccepted;
}

}  // namespace

bool SealVerifierAccepts(int item, const char *identifier) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const Fd in(ends[0]);
  Fd out(ends[1]);
  const int image = KeptImage();
  const Fd raisedItem = Raised(item);
  Fd raisedOut = Raised(out.Get());
  if (image < 0 || !raisedItem || !raisedOut) return false;

  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) Become(image, raisedItem.Get(), raisedOut.Get(), identifier);
  // The child's is the only one left, so that its end is seen.
  out.Reset();
  raisedOut.Reset();
  const bool accepted = Accepted(in.Get());
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
  return accepted;
}
