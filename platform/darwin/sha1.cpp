// sha1.cpp -- SHA-1 on macOS, by CommonCrypto.

#include "platform/sha1.h"

#include <CommonCrypto/CommonDigest.h>

#include <algorithm>

static_assert(CC_SHA1_DIGEST_LENGTH == sizeof(PlatformSha1Digest));

bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest) {
  CC_SHA1_CTX context;
  CC_SHA1_Init(&context);
  // CC_LONG has 32 bits.
  const auto *next = static_cast<const uint8_t *>(data);
  while (size > 0) {
    const auto piece = static_cast<CC_LONG>(std::min<size_t>(size, UINT32_MAX));
    CC_SHA1_Update(&context, next, piece);
    next += piece;
    size -= piece;
  }
  CC_SHA1_Final(digest->data(), &context);
  return true;
}
