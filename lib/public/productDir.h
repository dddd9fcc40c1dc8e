// productDir.h -- how the library finds folders of the product.
//
// The library does not know how a program is laid out on disk.  A program that does installs its
// look-up at start:
//   ProductDir_InstallLookup(Location_GetLookupFunction());
// Who needs a folder asks that look-up; where none is installed, it falls back to a place of its
// own.
#pragma once

#include <atomic>

// A new string with the absolute path of what `key` (not null) names, which the caller frees with
// free(); null when it has no such key.
using ProductDirLookup = char *(*)(const char *key);

struct ProductDirState {
  std::atomic<ProductDirLookup> lookup = nullptr;
};
inline constinit ProductDirState productDirState;

inline void ProductDir_InstallLookup(ProductDirLookup lookup) {
  productDirState.lookup.store(lookup, std::memory_order_relaxed);
}

// The look-up; null when the program installed none.
[[nodiscard]] inline ProductDirLookup ProductDir_GetLookup() {
  return productDirState.lookup.load(std::memory_order_relaxed);
}
