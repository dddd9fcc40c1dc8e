// printfPeer.h -- the same format and arguments through the product's printf and the host's.
#pragma once

#include <cstdarg>

#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/str.h"
#include "tests/support/test.h"

// Formats come from tables, where the compiler cannot check them.
#pragma GCC diagnostic ignored "-Wformat-security"

inline constexpr char kPeerFailed[] = "<failed>";

inline std::string PeerTake(char *text, int length) {
  const HeapStr owner(text);
  return length < 0 ? kPeerFailed : std::string(text, static_cast<size_t>(length));
}

template <typename... Args>
std::string Ours(const std::string &format, Args... args) {
  size_t length = 0;
  char *const text = Str_Asprintf(&length, format.c_str(), args...);
  return PeerTake(text, text == nullptr ? -1 : static_cast<int>(length));
}

// The engine on a buffer of `size` bytes.
inline int OursInto(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int count = bsd_vsnprintf(&buffer, size, format, args);
  va_end(args);
  return count;
}

// Both print the same: as a new string, and in a buffer that holds only a part.
template <typename... Args>
void Agree(const std::string &format, Args... args) {
  char *host = nullptr;
  const int length = asprintf(&host, format.c_str(), args...);
  const std::string expected = PeerTake(host, length);
  ASSERT_EQ(expected, Ours(format, args...)) << format;
  std::string half(expected.size() / 2 + 2, '#');
  const size_t size = half.size() - 1;
  ASSERT_EQ(length, OursInto(half.data(), size, format.c_str(), args...)) << format;
  ASSERT_EQ(expected.substr(0, size - 1) + '\0' + '#', half) << format;
}
