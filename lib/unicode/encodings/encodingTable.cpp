// encodingTable.cpp -- the name table, made from encodings.inc.
//
// The rows as written, with a pointer for each name, exist only while compiling.  The program has what
// is made from them: one block of characters with all names, and rows of 16 bytes with the offset of
// their first name.  That is 23 KB without a single relocation; rows of pointers would be 120 KB to
// relocate whenever the program starts.
// Tests: tests/unit/codeset_test.cpp, fuzz/encoding_fuzz.cpp

#include "lib/unicode/encodings/encodingTable.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace {

// ---- as written ------------------------------------------------------------------------------

constexpr bool kUsable = true;
constexpr bool kKnown = false;
constexpr int kNone = -1;

struct Source {
  int encoding;
  bool usable;
  int mib, codePage;
  std::string_view preferred;
  std::array<const char *, kMaxEncodingNames + 1> names;  // a null pointer ends them
};

constexpr Source kSources[] = {
#include "lib/unicode/encodings/encodings.inc"
};

static_assert(std::size(kSources) == kNumEncodingRows);

constexpr std::span<const char *const> Names(const Source &source) {
  return {source.names.begin(), std::ranges::find(source.names, nullptr)};
}

constexpr size_t PreferredIndex(const Source &source) {
  const auto names = Names(source);
  return static_cast<size_t>(std::ranges::find(names, source.preferred) - names.begin());
}

static_assert(std::ranges::all_of(kSources, [](const Source &source) {
  return source.names.back() == nullptr && PreferredIndex(source) < Names(source).size();
}));

// ---- as kept ---------------------------------------------------------------------------------

constexpr size_t NamesSize() {
  size_t size = 0;
  for (const Source &source : kSources) {
    for (const std::string_view name : Names(source)) size += name.size() + 1;
    size++;
  }
  return size;
}

static_assert(NamesSize() <= UINT16_MAX);

struct Table {
  std::array<EncodingRow, kNumEncodingRows> rows;
  std::array<char, NamesSize()> names;
};

constexpr Table MakeTable() {
  Table table{};
  auto row = table.rows.begin();
  auto end = table.names.begin();
  for (const Source &source : kSources) {
    *row++ = {
        .mib = source.mib,
        .codePage = static_cast<uint32_t>(source.codePage),
        .encoding = static_cast<int16_t>(source.encoding),
        .usable = source.usable,
        .preferred = static_cast<uint8_t>(PreferredIndex(source)),
        .firstName = static_cast<uint16_t>(end - table.names.begin()),
    };
    for (const std::string_view name : Names(source)) end = std::ranges::copy(name, end).out + 1;
    end++;
  }
  return table;
}

constexpr Table kTable = MakeTable();

// ---- by number -------------------------------------------------------------------------------

constexpr uint16_t kNoRow = UINT16_MAX;

constexpr auto MakeFirstRows() {
  std::array<uint16_t, kNumEncodings> first{};
  first.fill(kNoRow);
  for (size_t i = kNumEncodingRows; i-- > 0;) {
    first[static_cast<size_t>(kTable.rows[i].encoding)] = static_cast<uint16_t>(i);
  }
  return first;
}

constexpr auto kFirstRows = MakeFirstRows();

static_assert(std::ranges::find(kFirstRows, kNoRow) == kFirstRows.end(), "a number without a row");

// The first numbers are those of StringEncoding, in any order.  Each row after these has the next
// number, unless it is another row of an earlier encoding.
static_assert([] {
  constexpr int kFirstCounted = 27;
  int next = kFirstCounted;
  for (const EncodingRow &row : kTable.rows) {
    if (row.encoding >= kFirstCounted && row.encoding != next++) return false;
  }
  return next == kNumEncodings;
}());

}  // namespace

std::span<const EncodingRow, kNumEncodingRows> EncodingTableRows() {
  return kTable.rows;
}

const EncodingRow &EncodingTableRow(int32_t encoding) {
  return kTable.rows[kFirstRows[static_cast<size_t>(encoding)]];
}

const char *EncodingTableFirstName(const EncodingRow &row) {
  return &kTable.names[row.firstName];
}

const char *EncodingTableNextName(const char *name) {
  return name + strlen(name) + 1;
}

const char *EncodingTablePreferredName(const EncodingRow &row) {
  const char *name = EncodingTableFirstName(row);
  for (unsigned i = 0; i < row.preferred; i++) name = EncodingTableNextName(name);
  return name;
}
