// sha1.cpp -- SHA-1 on Linux, by OpenSSL.
//
// By the procedures of the algorithm itself, which OpenSSL would rather have nobody use: the ones
// that it prefers look the algorithm up among all others, and so link these into each program that
// asks for a machine's identity.  17,000 relocations at every start are a high price for 64 bytes.

#define OPENSSL_SUPPRESS_DEPRECATED

#include "platform/sha1.h"

#include <openssl/sha.h>

bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest) {
  SHA_CTX context;
  return SHA1_Init(&context) == 1 && SHA1_Update(&context, data, size) == 1 &&
         SHA1_Final(digest->data(), &context) == 1;
}
