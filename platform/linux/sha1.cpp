// sha1.cpp -- SHA-1 on Linux, by OpenSSL.

#include "platform/sha1.h"

#include <openssl/evp.h>

bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest) {
  return EVP_Digest(data, size, digest->data(), nullptr, EVP_sha1(), nullptr) == 1;
}
