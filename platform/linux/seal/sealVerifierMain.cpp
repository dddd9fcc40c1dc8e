// sealVerifierMain.cpp -- the unprivileged process: sealVerifier.h says why it exists and how it is
// started, sealVerifierWire.h has the protocol.
// Tests: tests/system/verifier_test.cpp

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/linux/seal/bundleIdentifier.h"
#include "platform/linux/seal/sealCheck.h"
#include "platform/linux/seal/sealJail.h"
#include "platform/linux/seal/sealVerifierWire.h"

namespace {

struct Request {
  Fd item;
  char identifier[kVerifierMaxText + 1];
};

struct Anchors {
  SealVerdict verdict = SealVerdict::NoAnchors;
  int error = 0;
  SmallFileBytes bytes;
};

// ---- the jobs ----------------------------------------------------------------------------------

Anchors ReadAnchors() {
  Anchors anchors;
  const Fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (root) anchors.verdict = SealReadAnchors(root.Get(), kSealAnchors, &anchors.bytes);
  if (anchors.verdict != SealVerdict::Valid) anchors.error = errno;
  return anchors;
}

void JudgeSeal(const Anchors &anchors, const Request &request, VerifierAnswer *answer) {
  SealVerdict verdict = anchors.verdict;
  errno = anchors.error;
  SealExtent extent = {};
  if (verdict == SealVerdict::Valid) {
    verdict = SealCheck(request.item.Get(), request.identifier, anchors.bytes.View(), &extent);
  }
  answer->verdict = verdict;
  switch (verdict) {
    case SealVerdict::Valid:
      answer->finding = VerifierFinding::Yes;
      answer->bytes = extent.bytes;
      answer->entries = extent.entries;
      break;
    case SealVerdict::NoAnchors:
      answer->finding = VerifierFinding::NoAnchors;
      answer->error = errno;
      break;
    case SealVerdict::Unreadable:
      answer->finding = VerifierFinding::Unreadable;
      answer->error = errno;
      break;
    default:
      break;
  }
}

void FindIdentifier(const Anchors &, const Request &request, VerifierAnswer *answer) {
  const HeapStr identifier = BundleIdentifier_Read(request.item.Get());
  if (identifier == nullptr) {
    if (SmallFileIsItemsFault(errno)) return;
    answer->finding = VerifierFinding::Unreadable;
    answer->error = errno;
    return;
  }
  const size_t size = strlen(identifier.get()) + 1;
  if (size > kVerifierMaxText + 1) return;
  memcpy(answer->text, identifier.get(), size);
  answer->finding = VerifierFinding::Yes;
}

struct Job {
  const char *name;
  Anchors (*prepare)();
  void (*answer)(const Anchors &anchors, const Request &request, VerifierAnswer *answer);
};

constexpr Job kJobs[] = {
    {kVerifierSeals, ReadAnchors, JudgeSeal},
    {kVerifierIdentifiers, [] { return Anchors(); }, FindIdentifier},
};

// ---- requests and answers ----------------------------------------------------------------------

// False at the end of file, and for a malformed request.
bool Receive(Request *request) {
  union {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(int))];
  } control = {};
  iovec text = {request->identifier, sizeof request->identifier};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof control;
  ssize_t n = 0;
  do {
    n = recvmsg(kVerifierSocket, &message, MSG_CMSG_CLOEXEC);
  } while (n < 0 && errno == EINTR);
  const cmsghdr *const header = CMSG_FIRSTHDR(&message);
  if (n <= 0 || header == nullptr || header->cmsg_level != SOL_SOCKET ||
      header->cmsg_type != SCM_RIGHTS || header->cmsg_len != CMSG_LEN(sizeof(int))) {
    return false;
  }
  int item = -1;
  memcpy(&item, CMSG_DATA(header), sizeof item);
  request->item.Reset(item);
  return (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 && request->identifier[n - 1] == '\0';
}

bool Send(const VerifierAnswer &answer) {
  ssize_t n = 0;
  do {
    n = send(kVerifierSocket, &answer, sizeof answer, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  return n == sizeof answer;
}

void Serve(const Job &job) {
  const Anchors anchors = job.prepare();
  for (;;) {
    Request request;
    if (!Receive(&request)) return;
    VerifierAnswer answer = {};
    answer.finding = VerifierFinding::No;
    job.answer(anchors, request, &answer);
    // Closed before the answer, so that the caller knows that the item is no longer open here.
    request.item.Reset();
    if (!Send(answer)) return;
  }
}

}  // namespace

int main(int argc, char **argv) {
  for (const Job &job : kJobs) {
    if (argc == 2 && strcmp(argv[1], job.name) == 0 && SealJailEnter()) Serve(job);
  }
  // _exit, since the filter does not allow what exit may do.
  _exit(EXIT_SUCCESS);
}
