// keyHash.h -- the hashes of hash table keys.  They decide the order in which a table is walked.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

// hash = rotl(hash ^ byte, 5), byte for byte, from 0.  Rotation distributes over XOR, so the bytes of a
// word can be rotated to their places in parallel, and only one step per word waits for the one before.

// What eight bytes, the first one lowest, are at the end of their eight steps.
inline uint32_t HashWord(uint64_t word) {
  constexpr uint64_t kBytes = 0x00FF00FF00FF00FF;
  constexpr uint64_t kPairs = 0x0000FFFF0000FFFF;
  const uint64_t pairs = (word & kBytes) << 5 ^ (word >> 8 & kBytes);
  const uint64_t fours = (pairs & kPairs) << 10 ^ (pairs >> 16 & kPairs);
  return std::rotl(static_cast<uint32_t>(fours), 25) ^
         std::rotl(static_cast<uint32_t>(fours >> 32), 5);
}

inline uint64_t WordAt(const char *bytes) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// The libraries of the two hosts disagree on the type that std::rotl wants for `bits`.
inline uint32_t RotateLeft(uint32_t value, size_t bits) {
  return value << bits % 32 | value >> (32 - bits) % 32;
}

inline uint32_t HashString(const char *key) {
  const size_t length = strlen(key);
  uint32_t hash = 0;
  size_t at = 0;
  for (; at + 8 <= length; at += 8) hash = std::rotl(hash, 8) ^ HashWord(WordAt(key + at));
  const size_t rest = length - at;
  if (rest == 0) return hash;
  if (length >= 8) {
    const uint64_t last = WordAt(key + length - 8) & ~uint64_t{0} << (64 - 8 * rest);
    return RotateLeft(hash, 5 * rest) ^ HashWord(last);
  }
  for (; at < length; at++) hash = std::rotl(hash ^ static_cast<unsigned char>(key[at]), 5);
  return hash;
}

inline uint32_t HashIgnoringCase(const char *key, const std::array<unsigned char, 256> &lower) {
  uint32_t hash = 0;
  for (; *key != '\0'; key++) hash = std::rotl(hash ^ lower[static_cast<unsigned char>(*key)], 5);
  return hash;
}

inline uint32_t HashInteger(const void *key) {
  const uint64_t value = reinterpret_cast<uintptr_t>(key);
  return static_cast<uint32_t>(value >> 32 ^ value) * 48271;
}
