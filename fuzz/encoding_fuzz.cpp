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

const std::vector<Name> kNames = AllNames();
const int kLog = LogOpen("/dev/null");

const EncodingRow *ExpectedRow(const std::string &name) {
  for (const EncodingRow &row : EncodingTableRows()) {
    if (IsCodePage(name, row.codePage)) return &row;
  }
  for (const auto form : {&Name::exact, &Name::reduced}) {
    const std::string wanted = form == &Name::exact ? name : Reduced(name);
    for (const Name &own : kNames) {
      if (own.*form == wanted) return own.row;
    }
  }
  return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  // One of the names with other cases and signs in it, or whatever the bytes are.
  std::string name;
  if (data.ConsumeBool()) {
    const size_t index = data.ConsumeIntegralInRange<size_t>(0, kNames.size() - 1);
    for (const char c : kNames[index].exact) {
      if (data.ConsumeProbability<float>() > 0.9F)
        name += data.PickValueInArray({'-', '_', ' ', '\xE9'});
      name += data.ConsumeProbability<float>() > 0.9F ? static_cast<char>(c ^ 0x20) : c;
    }
  }
  name = (name + data.ConsumeRandomLengthString(20)).c_str();
  const EncodingRow *const row = ExpectedRow(name);
  const bool isUsable = row != nullptr && row->usable;
  const auto expected = isUsable ? StringEncoding{row->encoding} : StringEncoding::Unknown;
  // The second time from memory.
  if (Unicode_EncodingNameToEnum(name.c_str()) == expected &&
      Unicode_EncodingNameToEnum(name.c_str()) == expected) {
    return 0;
  }
  fprintf(stderr, "another encoding for \"%s\"\n", name.c_str());
  abort();
}
