// unicodeSimpleTypes.cpp -- encodings by number and by name.
// Tests: tests/unit/codeset_test.cpp, fuzz/encoding_fuzz.cpp

#include <atomic>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>

#include "lib/public/encoding.h"
#include "lib/public/fatal.h"
#include "lib/public/hashTable.h"
#include "lib/public/log.h"
#include "lib/unicode/encodings/encodingTable.h"

namespace {

constexpr char kLookupName[] = "UnicodeIANALookup";

// What the process remembers.  All of it is filled without a lock: threads that race store the same
// values.
struct {
  // From names as they were given to rows; never freed.
  std::atomic<HashTable *> rowsByName = nullptr;
  std::atomic<StringEncoding> current = StringEncoding::Unknown;
} state;

HashTable *RowsByName() {
  constexpr uint32_t kBuckets = 128;
  HashTable *const table = state.rowsByName.load(std::memory_order_acquire);
  if (table != nullptr) return table;
  return HashTable_AllocOnce(&state.rowsByName, kBuckets,
                             HASHTABLE_STRING_KEY | HASHTABLE_ATOMIC | HASHTABLE_COPY_KEY, nullptr);
}

// ---- by code page ----------------------------------------------------------------------------

// The N of "windows-N" and "Windows-N".
std::optional<uint32_t> WindowsCodePage(std::string_view name) {
  constexpr std::string_view kPrefixes[] = {"windows-", "Windows-"};
  for (const std::string_view prefix : kPrefixes) {
    if (!name.starts_with(prefix)) continue;
    const std::string_view digits = name.substr(prefix.size());
    uint32_t page = kNoCodePage;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), page);
    if (error != std::errc() || end != digits.end() || page == kNoCodePage) return std::nullopt;
    return page;
  }
  return std::nullopt;
}

const EncodingRow *RowOfCodePage(uint32_t page) {
  for (const EncodingRow &row : EncodingTableRows()) {
    if (row.codePage == page) return &row;
  }
  return nullptr;
}

// ---- by name ---------------------------------------------------------------------------------

// The letters and digits of a name one after the other, in lower case, and then NUL.  ASCII only,
// whatever the locale: these names are the same everywhere.
class Reduced {
  const char *p_;

 public:
  explicit Reduced(const char *name) : p_(name) {}

  char Next() {
    for (; *p_ != '\0'; p_++) {
      const char c = *p_;
      if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return *p_++;
      if (c >= 'A' && c <= 'Z') return static_cast<char>(*p_++ - 'A' + 'a');
    }
    return '\0';
  }
};

bool SameReduced(const char *a, const char *b) {
  Reduced left(a);
  Reduced right(b);
  char c;
  do {
    c = left.Next();
    if (c != right.Next()) return false;
  } while (c != '\0');
  return true;
}

bool SameExactly(const char *a, const char *b) {
  return strcmp(a, b) == 0;
}

// The first row that has a name equal to `name`.
const EncodingRow *RowOfName(const char *name, bool (*equal)(const char *, const char *)) {
  for (const EncodingRow &row : EncodingTableRows()) {
    for (const char *own = EncodingTableFirstName(row); *own != '\0';
         own = EncodingTableNextName(own)) {
      if (equal(name, own)) return &row;
    }
  }
  return nullptr;
}

// ---- together --------------------------------------------------------------------------------

const EncodingRow *SearchRow(const char *name) {
  const auto page = WindowsCodePage(name);
  const EncodingRow *row = page.has_value() ? RowOfCodePage(*page) : nullptr;
  if (row == nullptr) row = RowOfName(name, SameExactly);
  if (row == nullptr) row = RowOfName(name, SameReduced);
  return row;
}

// The row for `name`; null, after a log record, when there is none.
const EncodingRow *FindRow(const char *name) {
  HashTable *const cache = RowsByName();
  void *cached;
  if (HashTable_Lookup(cache, name, &cached)) return static_cast<const EncodingRow *>(cached);
  const EncodingRow *const row = SearchRow(name);
  if (row == nullptr) {
    Log("%s: Did not find an IANA match for encoding \"%s\"\n", kLookupName, name);
    return nullptr;
  }
  HashTable_Insert(cache, name, const_cast<EncodingRow *>(row));
  return row;
}

}  // namespace

StringEncoding Unicode_EncodingNameToEnum(const char *name) {
  const EncodingRow *const row = FindRow(name);
  if (row == nullptr || !row->usable) return StringEncoding::Unknown;
  return static_cast<StringEncoding>(row->encoding);
}

const char *Unicode_EncodingEnumToName(StringEncoding encoding) {
  if (encoding == StringEncoding::Current) encoding = Unicode_GetCurrentEncoding();
  const auto number = static_cast<int32_t>(encoding);
  if (number < 0 || number >= kNumEncodings) {
    Log("%s: Unknown encoding %d.\n", "Unicode_EncodingEnumToName", number);
    Fatal_NotReached("lib/unicode/unicodeSimpleTypes", 2588);
  }
  return EncodingTablePreferredName(EncodingTableRow(number));
}

StringEncoding Unicode_GetCurrentEncoding() {
  StringEncoding current = state.current.load(std::memory_order_relaxed);
  if (current == StringEncoding::Unknown) {
    current = Unicode_EncodingNameToEnum(kCurrentCodeSet);
    state.current.store(current, std::memory_order_relaxed);
  }
  return current;
}

bool Unicode_IsEncodingValid(StringEncoding encoding) {
  return static_cast<int32_t>(encoding) < kNumEncodings;
}
