// djb2.h -- the hash h * 33 + byte from 5381, modulo 2^32: it is part of formats on disk.
#pragma once

#include <cstdint>

// Of the bytes of `text` (not null) before its NUL.
inline uint32_t Djb2_Hash(const char *text) {
  uint32_t hash = 5381;
  for (; *text != '\0'; text++) hash = hash * 33 + static_cast<uint8_t>(*text);
  return hash;
}
