// codeSignature.cpp -- code signatures on Linux: seals.

#include "platform/codeSignature.h"

#include <fcntl.h>

#include "platform/linux/sealCheck.h"

namespace {

enum Failure { kNone = 0, kCode = 3, kInvalid = 7 };

}  // namespace

int Platform_VerifyCodeSignature(const char *path, const char *identifier) {
  const Fd item = SealOpenItem(path);
  if (!item) return kCode;
  const Fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  SmallFileBytes anchors;
  if (!root || SealReadAnchors(root.Get(), kSealAnchors, &anchors) != SealVerdict::Valid) {
    return kInvalid;
  }
  return SealCheck(item.Get(), identifier, anchors.View()) == SealVerdict::Valid ? kNone : kInvalid;
}
