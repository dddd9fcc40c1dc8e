// sealVerifierMain.cpp -- the process without rights: sealVerifier.h says why and how it is started,
// sealVerifierWire.h how it is asked.

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

struct Question {
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

void JudgeSeal(const Anchors &anchors, const Question &question, VerifierAnswer *answer) {
  SealVerdict verdict = anchors.verdict;
  errno = anchors.error;
  SealExtent extent = {};
  if (verdict == SealVerdict::Valid) {
    verdict = SealCheck(question.item.Get(), question.identifier, anchors.bytes.View(), &extent);
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

void FindIdentifier(const Anchors &, const Question &question, VerifierAnswer *answer) {
  const HeapStr identifier = BundleIdentifier_Read(question.item.Get());
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
  void (*answer)(const Anchors &anchors, const Question &question, VerifierAnswer *answer);
};

constexpr Job kJobs[] = {
    {kVerifierSeals, ReadAnchors, JudgeSeal},
    {kVerifierIdentifiers, [] { return Anchors(); }, FindIdentifier},
};

// ---- questions and answers ---------------------------------------------------------------------

// False at the end, or for what is no question.
bool Receive(Question *question) {
  union {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(int))];
  } control = {};
  iovec text = {question->identifier, sizeof question->identifier};
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
  question->item.Reset(item);
  return (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0 && question->identifier[n - 1] == '\0';
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
    Question question;
    if (!Receive(&question)) return;
    VerifierAnswer answer = {};
    answer.finding = VerifierFinding::No;
    job.answer(anchors, question, &answer);
    // When the answer is there, nothing holds the item any more.
    question.item.Reset();
    if (!Send(answer)) return;
  }
}

}  // namespace

int main(int argc, char **argv) {
  for (const Job &job : kJobs) {
    if (argc == 2 && strcmp(argv[1], job.name) == 0 && SealJailEnter()) Serve(job);
  }
  // No more than what the filter lets through.
  _exit(EXIT_SUCCESS);
}
