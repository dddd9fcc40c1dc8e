// encoding_fuzz.cpp -- the look-up of any name against the plain reading of its rules.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "lib/public/encoding.h"
#include "lib/public/log.h"
#include "lib/unicode/encodings/encodingTable.h"

namespace {

std::string Reduced(const std::string &name) {
  std::string reduced;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < 0x80 && isalnum(c) != 0) {
      reduced += static_cast<char>(tolower(c));
    }
  }
  return reduced;
}

bool IsCodePage(const std::string &name, uint32_t page) {
  if (!name.starts_with("windows-") && !name.starts_with("Windows-")) return false;
  std::string digits = name.substr(8);
  digits.erase(0, digits.find_first_not_of('0'));
  return page != kNoCodePage && digits == std::to_string(page);
}

struct Name {
  std::string exact, reduced;
  const EncodingRow *row;
};

std::vector<Name> AllNames() {
  std::vector<Name> names;
  for (const EncodingRow &row : EncodingTableRows()) {
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name)) {
      names.push_back({name, Reduced(name), &row});
    }
  }
  return names;
}

const std::vector<Name> &Names() {
  static const std::vector<Name> names = AllNames();
  return names;
}

const EncodingRow *ExpectedRow(const std::string &name) {
  for (const EncodingRow &row : EncodingTableRows()) {
    if (IsCodePage(name, row.codePage)) return &row;
  }
  for (const Name &own : Names()) {
    if (own.exact == name) return own.row;
  }
  const std::string reduced = Reduced(name);
  for (const Name &own : Names()) {
    if (own.reduced == reduced) return own.row;
  }
  return nullptr;
}

StringEncoding Expected(const std::string &name) {
  const EncodingRow *const row = ExpectedRow(name);
  return row != nullptr && row->usable ? StringEncoding{row->encoding} : StringEncoding::Unknown;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  LogOpen("/dev/null");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  // One of the names with other cases and signs in it, or whatever the bytes are.
  std::string name;
  if (data.ConsumeBool()) {
    const size_t index = data.ConsumeIntegralInRange<size_t>(0, Names().size() - 1);
    for (const char c : Names()[index].exact) {
      if (data.ConsumeProbability<float>() > 0.9F)
        name += data.PickValueInArray({'-', '_', ' ', '\xE9'});
      name += data.ConsumeProbability<float>() > 0.9F ? static_cast<char>(c ^ 0x20) : c;
    }
  }
  name = (name + data.ConsumeRandomLengthString(20)).c_str();
  const StringEncoding expected = Expected(name);
  for (int round = 0; round < 2; round++) {  // the second time from memory
    if (Unicode_EncodingNameToEnum(name.c_str()) == expected) continue;
    fprintf(stderr, "another encoding for \"%s\"\n", name.c_str());
    abort();
  }
  return 0;
}
