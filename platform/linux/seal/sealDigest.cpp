// sealDigest.cpp -- the digest of an open file.
// Tests: tests/system/codeseal_test

#include "platform/linux/seal/sealDigest.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/seal/openssl.h"

bool SealDigestOf(int fd, uint64_t limit, SealDigest *digest, uint64_t *size) {
  constexpr size_t kPiece = size_t{256} << 10;
  const HeapArray<char> buffer = Heap_Array<char>(kPiece);
  if (buffer == nullptr) return false;
  errno = ENOMEM;
  if (!OpensslStart()) return false;
  const OpensslOwner<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return false;
  }
  for (*size = 0;;) {
    const ssize_t n = pread(fd, buffer.get(), std::min<uint64_t>(kPiece, limit - *size),
                            static_cast<off_t>(*size));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    *size += static_cast<uint64_t>(n);
    errno = ENOMEM;
    if (n == 0) return EVP_DigestFinal_ex(context.get(), digest->data(), nullptr) == 1;
    if (EVP_DigestUpdate(context.get(), buffer.get(), static_cast<size_t>(n)) != 1) return false;
  }
}
