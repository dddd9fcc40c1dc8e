// sha1.cpp -- SHA-1 on Linux, by OpenSSL.
//
// By the low-level functions, which OpenSSL has deprecated.  The recommended ones look the algorithm up
// in a table of all algorithms, and so link all of them into each program that asks for the machine's
// identity: 17,000 relocations at every start are a high price for hashing 64 bytes.
// Tests: tests/unit/hostServices_test.cpp

#define OPENSSL_SUPPRESS_DEPRECATED

#include "platform/sha1.h"

#include <openssl/sha.h>

bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest) {
  SHA_CTX context;
  return SHA1_Init(&context) == 1 && SHA1_Update(&context, data, size) == 1 &&
         SHA1_Final(digest->data(), &context) == 1;
}
