// unicodeNormalize.cpp -- normalisation on Linux, by ICU, which works on UTF-16.
// Tests: tests/unit/darwin_test.cpp

#include "platform/unicodeNormalize.h"

#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace {

// UTF-16 without a terminator.
struct Units {
  HeapArray<UChar> data;
  int32_t length = 0;
};

// Where ICU can report the length of the result, a first call asks for it and a second one converts.
// Units without data mean failure.

Units FromUtf8(const char *string) {
  const size_t size = strlen(string);
  if (size > INT32_MAX) return {};
  // Never more UTF-16 units than UTF-8 bytes.
  Units units{Heap_Array<UChar>(size)};
  if (units.data == nullptr) return {};
  UErrorCode error = U_ZERO_ERROR;
  const auto length = static_cast<int32_t>(size);
  u_strFromUTF8(units.data.get(), length, &units.length, string, length, &error);
  return U_SUCCESS(error) ? std::move(units) : Units{};
}

Units Normalize(const Units &text, bool precomposed) {
  UErrorCode error = U_ZERO_ERROR;
  const UNormalizer2 *const normalizer =
      precomposed ? unorm2_getNFCInstance(&error) : unorm2_getNFDInstance(&error);
  const int32_t length =
      unorm2_normalize(normalizer, text.data.get(), text.length, nullptr, 0, &error);
  if (U_FAILURE(error) && error != U_BUFFER_OVERFLOW_ERROR) return {};
  Units result{Heap_Array<UChar>(static_cast<size_t>(length)), length};
  if (result.data == nullptr) return {};
  error = U_ZERO_ERROR;
  unorm2_normalize(normalizer, text.data.get(), text.length, result.data.get(), length, &error);
  return U_SUCCESS(error) ? std::move(result) : Units{};
}

HeapStr ToUtf8(const Units &text) {
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  u_strToUTF8(nullptr, 0, &length, text.data.get(), text.length, &error);
  if (U_FAILURE(error) && error != U_BUFFER_OVERFLOW_ERROR) return nullptr;
  HeapStr string(Heap_Array<char>(static_cast<size_t>(length) + 1).release());
  if (string == nullptr) return nullptr;
  error = U_ZERO_ERROR;
  u_strToUTF8(string.get(), length + 1, nullptr, text.data.get(), text.length, &error);
  return U_SUCCESS(error) ? std::move(string) : nullptr;
}

}  // namespace

HeapStr Platform_NormalizeUnicode(const char *string, bool precomposed) {
  const Units text = FromUtf8(string);
  if (text.data == nullptr) return nullptr;
  const Units normalized = Normalize(text, precomposed);
  return normalized.data == nullptr ? nullptr : ToUtf8(normalized);
}
