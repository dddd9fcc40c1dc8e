// format_fuzz.cpp -- the printf engine under two kinds of formats.
//
//   made formats   conversions that fit one fixed list of arguments, in sequence or by position:
//                  the host's printf must print the same
//   raw formats    any bytes, over values that suit every conversion: all ways to print agree, and
//                  nothing is written past the end

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/heap.h"
#include "lib/public/str.h"

#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

using std::string;

void Require(bool condition, const string &format, const char *what) {
  if (condition) return;
  fprintf(stderr, "%s, format <%s>\n", what, format.c_str());
  abort();
}

// ---- made formats ---------------------------------------------------------------------------

constexpr std::string_view kTypes = "ilfsif";  // int, int64_t, double, string
constexpr int kIntPositions[] = {1, 5};

class FormatMaker {
  FuzzedDataProvider &data_;
  bool positional_;
  string format_;

 public:
  FormatMaker(FuzzedDataProvider &data, bool positional) : data_(data), positional_(positional) {}

  string Make() {
    AddLiteral();
    // By position each one is named once at least, or its type would be unknown.
    for (size_t i = 0; i < kTypes.size(); ++i) AddConversion(i);
    while (positional_ && data_.remaining_bytes() > 0) {
      AddConversion(data_.ConsumeIntegralInRange<size_t>(0, kTypes.size() - 1));
    }
    return format_;
  }

 private:
  void AddLiteral() {
    for (const char c : data_.ConsumeRandomLengthString(12)) {
      if (c != '\0') format_ += c == '%' ? "%%" : string(1, c);
    }
  }

  char PickOf(const char *list) {
    return list[data_.ConsumeIntegralInRange<size_t>(0, strlen(list) - 1)];
  }

  void AddCount(int lowest, int highest) {
    if (positional_ && lowest == 0 && data_.ConsumeBool()) {
      format_ += '*' + std::to_string(data_.PickValueInArray(kIntPositions)) + '$';
    } else {
      format_ += std::to_string(data_.ConsumeIntegralInRange(lowest, highest));
    }
  }

  void AddConversion(size_t index) {
    format_ += '%';
    if (positional_) format_ += std::to_string(index + 1) + '$';
    const char type = kTypes[index];
    const char letter = PickOf(type == 'f' ? "eEfFgG" : type == 's' ? "s" : "diuoxX");
    // glibc drops the zeros of "#" when rounding adds a digit (%#g of 999999.5).
    const bool isGeneral = letter == 'g' || letter == 'G';
    const char *const flags = isGeneral ? "-+ '0" : letter == 's' ? "-+ #'" : "-+ #'0";
    while (data_.ConsumeBool() && data_.remaining_bytes() > 0) format_ += PickOf(flags);
    if (data_.ConsumeBool()) AddCount(1, 300);
    if (data_.ConsumeBool()) {
      format_ += '.';
      // Without decimals halves are rounded another way than the host's.
      AddCount(letter == 'f' || letter == 'F' ? 1 : 0, 400);
    }
    if (type == 'i') format_ += data_.PickValueInArray({"", "h", "hh"});
    // By position glibc takes q and L for no modifier at all.
    const size_t last = positional_ ? 4 : 6;
    const char *const sizes[] = {"l", "ll", "j", "z", "t", "q", "L"};
    if (type == 'l') format_ += sizes[data_.ConsumeIntegralInRange<size_t>(0, last)];
    format_ += letter;
    AddLiteral();
  }
};

void CompareWithHost(FuzzedDataProvider &data) {
  const int a = data.ConsumeIntegralInRange(-500, 500);  // also widths and precisions
  const int e = data.ConsumeIntegralInRange(-500, 500);
  const int64_t b = data.ConsumeIntegral<int64_t>();
  const double c = data.ConsumeFloatingPoint<double>();
  const double f = data.ConsumeBool() ? c / 3 : static_cast<double>(b) / 1024;
  const string d = data.ConsumeRandomLengthString(80);
  const size_t size = data.ConsumeIntegralInRange<size_t>(1, 200);
  const bool positional = data.ConsumeBool();
  const string format = FormatMaker(data, positional).Make();
  const auto printBy = [&](auto printer, auto... to) {
    return printer(to..., format.c_str(), a, b, c, d.c_str(), e, f);
  };
  char *host = nullptr;
  const int hostLength = printBy(asprintf, &host);
  const HeapStr expected(host);
  Require(hostLength >= 0, format, "the host refuses");
  size_t length = 0;
  const HeapStr actual(printBy(Str_Asprintf, &length));
  Require(actual != nullptr && length == static_cast<size_t>(hostLength) &&
              memcmp(expected.get(), actual.get(), length + 1) == 0,
          format, (string("host <") + expected.get() + ">, here another text").c_str());

  const HeapArray<char> cut = Heap_Array<char>(size);
  const int result = printBy(Str_Snprintf, cut.get(), size);
  Require(result == (length < size ? static_cast<int>(length) : -1), format, "wrong length");
  const size_t kept = strnlen(cut.get(), size);
  Require(kept < size && memcmp(cut.get(), expected.get(), kept) == 0, format, "wrong part");
}

// ---- raw formats ----------------------------------------------------------------------------

void PrintRaw(FuzzedDataProvider &data) {
  const size_t size = data.ConsumeIntegralInRange<size_t>(0, 300);
  string format = data.ConsumeRemainingBytesAsString();
  // A stored count could make the wide string below illegal, which is fatal.
  std::replace(format.begin(), format.end(), 'n', 'd');
  format = format.c_str();
  // "ab" as 32-bit units, "a" as bytes, and an address for whatever takes a number.
  alignas(8) const char32_t text[] = U"ab";
  std::array<FormatValue, 16> values;
  for (FormatValue &value : values) value.pointer = text;
  const HeapArray<char> fixed = Heap_Array<char>(size);
  char *output = fixed.get();
  const int length = bsd_vsnprintf_values(&output, size, format.c_str(), values);
  Require(size == 0 || strnlen(output, size) < size, format, "not terminated");
  // A failure may come late, in a text of gigabytes.
  if (length < 0 || length > 1 << 14) return;
  char *grown = nullptr;
  const int grownLength = bsd_vsnprintf_values(&grown, 0, format.c_str(), values);
  const HeapStr owner(grown);
  Require(grownLength == length, format, "another length");
  const size_t kept = size == 0 ? 0 : std::min(static_cast<size_t>(length), size - 1);
  Require(memcmp(grown, output, kept) == 0, format, "another text");
  Require(grown[length] == '\0', format, "not terminated");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  if (data.ConsumeBool()) {
    CompareWithHost(data);
  } else {
    PrintRaw(data);
  }
  return 0;
}
