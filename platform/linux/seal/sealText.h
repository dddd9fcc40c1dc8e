// sealText.h -- the text inside a seal: what is sealed, and under which name (docs/seal-format.md).
//
// The encoding is unique: for every text that SealParse accepts, SealWrite produces the same bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "lib/public/heap.h"
#include "platform/linux/seal/sealVerdict.h"

inline constexpr size_t kSealMaxItems = 65536;

using SealDigest = std::array<uint8_t, 32>;  // SHA-256

// A regular file, or a symbolic link.  Strings are any bytes but NUL.
struct SealItem {
  const char *path;
  const char *target;  // of a link; null for a file
  SealDigest digest;   // of a file
  uint64_t size;       // of a file, in bytes; 0 for a link
};

struct SealText {
  HeapArray<char> strings;  // storage of all strings below
  const char *identifier = nullptr;
  HeapArray<SealItem> items;
  size_t count = 0;
  uint64_t bytes = 0;  // sum of the sizes of all items

  std::span<const SealItem> Items() const { return {items.get(), count}; }
};

// Parses the text of a seal, which may be any bytes.  Valid; OldText for the first version of the format,
// which had no sizes; Unreadable with errno ENOMEM; BadText for any other deviation from the format,
// for more than kSealMaxItems items, and for sizes whose sum exceeds INT64_MAX.
[[nodiscard]] SealVerdict SealParse(std::string_view text, SealText *parsed);

// The item with that path; null if there is none.
[[nodiscard]] const SealItem *SealFind(const SealText &text, const char *path);

// The text for these items, which must be in ascending order of their paths by strcmp(3), without
// duplicates.  The identifier, paths and targets must not be empty.  Null if memory is exhausted.
[[nodiscard]] HeapArray<char> SealWrite(const char *identifier, std::span<const SealItem> items,
                                        size_t *size);
