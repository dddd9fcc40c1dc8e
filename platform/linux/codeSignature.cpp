// codeSignature.cpp -- code signatures on Linux: seals.

#include "platform/codeSignature.h"

#include "platform/linux/sealItem.h"
#include "platform/linux/sealVerifier.h"

namespace {

enum Failure { kNone = 0, kCode = 3, kInvalid = 7 };

}  // namespace

int Platform_VerifyCodeSignature(const char *path, const char *identifier) {
  const Fd item = SealOpenItem(path);
  if (!item) return kCode;
  return SealVerifierAccepts(item.Get(), identifier) ? kNone : kInvalid;
}
