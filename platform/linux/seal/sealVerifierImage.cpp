// sealVerifierImage.cpp -- the verifier's executable file, embedded as data.  The build defines its path.
// Tests: tests/system/verifier_test.cpp

#include "platform/linux/seal/sealVerifier.h"

asm(R"(
  .section .sealVerifier, "a"
  .balign 16
sealVerifierBegin:
  .incbin ")" LUMEN_SEAL_VERIFIER R"("
sealVerifierEnd:
  .previous
)");

extern "C" const char sealVerifierBegin[];
extern "C" const char sealVerifierEnd[];

std::string_view SealVerifierImage() {
  return {sealVerifierBegin, static_cast<size_t>(sealVerifierEnd - sealVerifierBegin)};
}
