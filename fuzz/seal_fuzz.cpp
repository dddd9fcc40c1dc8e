// seal_fuzz.cpp -- seals that nobody has signed: their texts, and the bytes around these; and
// property lists in binary form.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/linux/seal/binaryPropertyList.h"
#include "platform/linux/seal/sealSignature.h"
#include "platform/linux/seal/sealText.h"

namespace {

// A certificate whose key nobody has any more.
constexpr char kAnchors[] = R"(-----BEGIN CERTIFICATE-----
MIIBbDCCARKgAwIBAgIUXenwPnvma/Gjlk+05XK5xEsUe3UwCgYIKoZIzj0EAwIw
FDESMBAGA1UEAwwJVGVzdCBSb290MB4XDTI2MTEyMTA3MjAwM1oXDTI2MTEyMzA3
MjAwM1owFDESMBAGA1UEAwwJVGVzdCBSb290MFkwEwYHKoZIzj0CAQYIKoZIzj0D
AQcDQgAEFOoZPGvBqqYL3RdKMpyWnP2rl6ojJw0sYee+jzOxwJndmsn0Qu7sFAcK
C8QJZdmPDhsOzjXZ377lRkpUSGlK76NCMEAwDwYDVR0TAQH/BAUwAwEB/zAOBgNV
HQ8BAf8EBAMCAQYwHQYDVR0OBBYEFKJq4UZjnBMXQIc6z0giDOzkjB9LMAoGCCqG
SM49BAMCA0gAMEUCIQDPE1BfVGboxVtY2cJicVbue8bY4Vs7fRase297cVnK3wIg
c0hH1NnFB9YjkmehTzWt4xEdEMD20UqKiX3UY0jdkZY=
-----END CERTIFICATE-----
)";

void Require(bool holds, const char *rule) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", rule);
  abort();
}

void TryText(const std::string &text) {
  SealText parsed;
  if (SealParse(text, &parsed) != SealVerdict::Valid) return;
  size_t size = 0;
  const HeapArray<char> written = SealWrite(parsed.identifier, parsed.Items(), &size);
  Require(std::string(written.get(), size) == text, "a text has one form");
  for (const SealItem &item : parsed.Items()) {
    Require(SealFind(parsed, item.path) == &item, "each item is found by its path");
  }
}

void TrySeal(const std::string &seal) {
  SmallFileBytes text;
  Require(SealOpen(seal, kAnchors, &text) != SealVerdict::Valid, "nobody can sign");
}

void TryAnchors(const std::string &anchors) {
  SmallFileBytes text;
  Require(SealOpen("", anchors, &text) != SealVerdict::Valid, "nothing is no seal");
}

void TryPropertyList(const std::string &list) {
  const HeapStr found = BinaryPropertyList_Find(list, "k");
  Require(found == nullptr || list.find(found.get()) != list.npos, "an identifier is in its list");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  const int what = data.ConsumeIntegralInRange<int>(0, 4);
  const std::string rest = data.ConsumeRemainingBytesAsString();
  if (what == 0) {
    TryText("zephrin-codeseal 2\nidentifier " + rest);
  } else if (what == 1) {
    TryText(rest);
  } else if (what == 2) {
    TrySeal(rest);
  } else if (what == 3) {
    TryAnchors(rest);
  } else {
    TryPropertyList(rest);
  }
  return 0;
}
