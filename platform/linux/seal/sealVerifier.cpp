// sealVerifier.cpp -- starts the unprivileged process and sends it requests.
// Tests: tests/system/verifier_test.cpp

#include "platform/linux/seal/sealVerifier.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "lib/public/fd.h"
#include "lib/public/monotonicClock.h"
#include "platform/process.h"

namespace {

constexpr unsigned kExecutable = 0x10;  // MFD_EXEC, which older headers lack
constexpr char kName[] = "seal-verifier";
constexpr int64_t kPatience = 60'000;  // ms

// ---- starting ----------------------------------------------------------------------------------

bool WriteImage(int fd) {
  for (std::string_view rest = SealVerifierImage(); !rest.empty();) {
    const ssize_t n = write(fd, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    rest.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// The image as a file in memory that nobody can change; empty on failure.
Fd MakeImage() {
  constexpr unsigned kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  // Older kernels do not know MFD_EXEC, newer ones may require it.
  Fd fd(memfd_create(kName, kFlags | kExecutable));
  if (!fd && errno == EINVAL) fd.Reset(memfd_create(kName, kFlags));
  constexpr int kSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  if (!fd || !WriteImage(fd.Get()) || fcntl(fd.Get(), F_ADD_SEALS, kSeals) != 0) return Fd();
  return fd;
}

// A copy above the descriptors that the child replaces.
int Raised(int fd) {
  return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// In the child.  Closes everything that the caller has open, above all locks, and does nothing that could
// block before that.
[[noreturn]] void Become(const char *job, int socket, int image) {
  char *const argv[] = {const_cast<char *>(kName), const_cast<char *>(job), nullptr};
  char *const envp[] = {nullptr};
  const int null = Raised(open("/dev/null", O_RDWR | O_CLOEXEC));
  socket = Raised(socket);
  image = Raised(image);
  // dup3 rather than dup2: in a trace, it distinguishes these calls from those of the daemon's start.
  if (null >= 0 && socket >= 0 && image >= 0 && dup3(socket, kVerifierSocket, 0) >= 0 &&
      dup3(null, STDOUT_FILENO, 0) >= 0 && dup3(null, STDERR_FILENO, 0) >= 0) {
    Platform_CloseDescriptorsExcept(&image, 1);
    execveat(image, "", argv, envp, AT_EMPTY_PATH);
  }
  _exit(EXIT_FAILURE);
}

// fork(2) with a descriptor for the child.  The caller of a set-user-ID program may have SIGCHLD ignored;
// then the pid of a child can be reused as soon as it has ended.
pid_t Fork(int *process) {
  return static_cast<pid_t>(
      syscall(SYS_clone, CLONE_PIDFD | SIGCHLD, nullptr, process, nullptr, nullptr));
}

// ---- asking ------------------------------------------------------------------------------------

bool Send(int socket, int item, const char *identifier) {
  union {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof item)];
  } control = {};
  iovec text = {const_cast<char *>(identifier), strlen(identifier) + 1};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof control;
  cmsghdr *const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof item);
  memcpy(CMSG_DATA(header), &item, sizeof item);
  ssize_t n = 0;
  do {
    n = sendmsg(socket, &message, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  return n >= 0;
}

// Waits for data or the end of file.  False with errno set; ETIMEDOUT after kPatience.
bool Await(int socket) {
  const int64_t end = MonotonicClock_Ms() + kPatience;
  for (;;) {
    pollfd one = {socket, POLLIN, 0};
    const int64_t left = end - MonotonicClock_Ms();
    const int n = left <= 0 ? 0 : poll(&one, 1, static_cast<int>(left));
    if (n > 0) return true;
    if (n == 0) errno = ETIMEDOUT;
    if (n == 0 || errno != EINTR) return false;
  }
}

// False with errno set: EPIPE at the end of file, EBADMSG for a malformed answer.
bool Receive(int socket, VerifierAnswer *answer) {
  if (!Await(socket)) return false;
  const ssize_t n = recv(socket, answer, sizeof *answer, MSG_DONTWAIT | MSG_TRUNC);
  if (n == 0) errno = EPIPE;
  if (n <= 0) return false;
  errno = EBADMSG;
  return n == sizeof *answer && memchr(answer->text, '\0', sizeof answer->text) != nullptr;
}

// ---- the processes -----------------------------------------------------------------------------

class Verifier {
  const char *job_;
  pid_t pid_ = -1;
  Fd process_;
  Fd socket_;
  VerifierObstacle obstacle_;  // why it is no longer asked

 public:
  explicit constexpr Verifier(const char *job) : job_(job) {}

  bool Ask(int item, const char *identifier, Fd *image, VerifierAnswer *answer,
           VerifierObstacle *obstacle) {
    if (obstacle_.words == nullptr) Try(item, identifier, image, answer);
    *obstacle = obstacle_;
    return obstacle_.words == nullptr;
  }

  void End() {
    Stop();
    obstacle_ = {};
  }

 private:
  void Try(int item, const char *identifier, Fd *image, VerifierAnswer *answer) {
    if (!socket_ && !Start(image)) return GiveUp("the checking process cannot be started");
    if (!Send(socket_.Get(), item, identifier)) {
      return GiveUp("the checking process cannot be asked");
    }
    if (!Receive(socket_.Get(), answer)) GiveUp("the checking process has not answered");
  }

  bool Start(Fd *image) {
    if (!*image) *image = MakeImage();
    int ends[2];
    if (!*image || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
    Fd ours(ends[0]);
    const Fd theirs(ends[1]);
    int process = -1;
    const pid_t pid = Fork(&process);
    if (pid < 0) return false;
    if (pid == 0) Become(job_, theirs.Get(), image->Get());
    if (process < 0) {  // Linux before 5.2; the process ends by itself, and is not waited for
      errno = ENOSYS;
      return false;
    }
    pid_ = pid;
    process_.Reset(process);
    socket_ = std::move(ours);
    return true;
  }

  void GiveUp(const char *words) {
    obstacle_ = {words, errno};
    Stop();
  }

  // It ends by itself when its socket closes, unless it is stopped or stuck; so it is killed.
  void Stop() {
    socket_.Reset();
    if (process_) syscall(SYS_pidfd_send_signal, process_.Get(), SIGKILL, nullptr, 0);
    process_.Reset();
    if (pid_ < 0) return;
    // If SIGCHLD is ignored, this also waits, and then fails with ECHILD.
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
    pid_ = -1;
  }
};

constinit struct {
  Fd image;  // kept, because writing it costs as much as a check
  Verifier seals{kVerifierSeals};
  Verifier identifiers{kVerifierIdentifiers};
} verifiers;

}  // namespace

bool SealVerifierAsk(VerifierJob job, int item, const char *identifier, VerifierAnswer *answer,
                     VerifierObstacle *obstacle) {
  Verifier &verifier = job == VerifierJob::Seals ? verifiers.seals : verifiers.identifiers;
  return verifier.Ask(item, identifier, &verifiers.image, answer, obstacle);
}

void SealVerifierEnd() {
  verifiers.seals.End();
  verifiers.identifiers.End();
  verifiers.image.Reset();
}
