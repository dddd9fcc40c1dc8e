// codeSignature.cpp -- code signatures on Linux: seals, and the identifiers of bundles.  The unprivileged
// process examines both; nothing of an item is read here.
// Tests: tests/system/verifier_test.cpp, staging_test.cpp, tests/unit/bundleIdentifier_test.cpp

#include "platform/codeSignature.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/files.h"
#include "platform/linux/seal/sealVerifier.h"

namespace {

enum Failure { kNone = 0, kNothingThere = 3, kNoIdentifier = 4, kInvalid = 7 };

bool IsDirectory(int item) {
  struct stat info;
  return item >= 0 && fstat(item, &info) == 0 && S_ISDIR(info.st_mode);
}

// True if the answer is yes.  Otherwise sets *obstacle if the item could not be examined.
bool Ask(VerifierJob job, int item, const char *identifier, VerifierAnswer *answer,
         VerifierObstacle *obstacle) {
  if (!SealVerifierAsk(job, item, identifier, answer, obstacle)) return false;
  if (answer->finding == VerifierFinding::NoAnchors) {
    *obstacle = {"there are no trusted anchors", answer->error};
  } else if (answer->finding == VerifierFinding::Unreadable) {
    *obstacle = {"it cannot be read", answer->error};
  }
  return answer->finding == VerifierFinding::Yes;
}

}  // namespace

Fd Platform_OpenSignedItem(const char *path) {
  return Platform_OpenRegularOrDirectory(AT_FDCWD, path);
}

PlatformSignature Platform_VerifyCodeSignature(const char *, int item, const char *identifier) {
  if (item < 0) return {.failure = kNothingThere, .reason = "there is no file or folder"};
  if (strlen(identifier) > kVerifierMaxText) {
    return {.failure = kInvalid, .reason = "the identifier is too long"};
  }
  VerifierAnswer answer = {};
  VerifierObstacle obstacle;
  if (Ask(VerifierJob::Seals, item, identifier, &answer, &obstacle)) {
    return {.extent = {answer.bytes, answer.entries}};
  }
  return {.failure = kInvalid,
          .obstacle = obstacle.words,
          .error = obstacle.error,
          .reason = obstacle.words != nullptr ? obstacle.words : SealVerdictWords(answer.verdict),
          .noTrust = answer.finding == VerifierFinding::NoAnchors};
}

PlatformBundleIdentifier Platform_BundleIdentifier(const char *, int item) {
  if (!IsDirectory(item)) return {kNothingThere, nullptr};
  VerifierAnswer answer;
  VerifierObstacle obstacle;
  if (!Ask(VerifierJob::Identifiers, item, "", &answer, &obstacle)) {
    return {kNoIdentifier, nullptr, obstacle.words, obstacle.error};
  }
  return {kNone, HeapStr(strdup(answer.text))};
}

void Platform_EndCodeSignatureChecks() {
  SealVerifierEnd();
}
