// encodingTable.h -- the rows of encodings.inc as the program keeps them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr size_t kNumEncodingRows = 325;
constexpr int32_t kNumEncodings = 324;  // two rows share one
constexpr size_t kMaxEncodingNames = 21;

constexpr uint32_t kNoCodePage = UINT32_MAX;

struct EncodingRow {
  int32_t mib;  // the number in the IANA registry; -1 when there is none
  uint32_t codePage;
  int16_t encoding;
  bool usable;
  uint8_t preferred;   // the index among its names
  uint16_t firstName;  // the offset of its names in the block of all names
};

[[nodiscard]] std::span<const EncodingRow, kNumEncodingRows> EncodingTableRows();

// The first row of an encoding, 0 <= encoding < kNumEncodings.
[[nodiscard]] const EncodingRow &EncodingTableRow(int32_t encoding);

// The names of a row: the first one, and the one after each; the last one is followed by an empty
// one.
[[nodiscard]] const char *EncodingTableFirstName(const EncodingRow &row);
[[nodiscard]] const char *EncodingTableNextName(const char *name);
[[nodiscard]] const char *EncodingTablePreferredName(const EncodingRow &row);
