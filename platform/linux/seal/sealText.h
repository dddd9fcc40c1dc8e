// sealText.h -- the text inside a seal: what is sealed, under which name.  docs/seal-format.md.
//
// A text and its parsed form stand for each other: whatever SealParse accepts, SealWrite writes to
// the byte.
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
  HeapArray<char> strings;  // what the pointers point into
  const char *identifier = nullptr;
  HeapArray<SealItem> items;
  size_t count = 0;
  uint64_t bytes = 0;  // the sizes of all items together

  std::span<const SealItem> Items() const { return {items.get(), count}; }
};

// Reads a seal's text, any bytes.  Valid, or: OldText for the first version of the format, which had
// no sizes; Unreadable with errno ENOMEM; BadText for anything else that is not exactly as it should
// be, has more than kSealMaxItems items, or sizes that together exceed what a file can have.
[[nodiscard]] SealVerdict SealParse(std::string_view text, SealText *parsed);

// The item of the path; null when there is none.
[[nodiscard]] const SealItem *SealFind(const SealText &text, const char *path);

// The text for these items, which are in ascending order of their paths as strcmp(3) has it, no two
// alike.  The identifier is not empty, nor are paths and targets.  Null when memory is exhausted.
[[nodiscard]] HeapArray<char> SealWrite(const char *identifier, std::span<const SealItem> items,
                                        size_t *size);
