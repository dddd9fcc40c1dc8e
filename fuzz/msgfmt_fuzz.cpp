// msgfmt_fuzz.cpp -- any format over one fixed list of captured arguments.
//
// A format, say from a translation, must never make the printf engine take a number for an address
// or reach behind the records: it is refused, or prints what the engine prints.  The strings are
// blocks of their own, so AddressSanitizer sees a step too far.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/heap.h"
#include "lib/public/msgfmt.h"

namespace {

using std::string;

constexpr int kCount = 8;

struct Arguments {
  MsgFmt_Arg *records = nullptr;
  std::array<FormatValue, kCount> values{};
};

Arguments Make(const char *format, ...) {
  Arguments made;
  va_list args;
  va_start(args, format);
  int count = 0;
  char *error = nullptr;
  if (!MsgFmt_GetArgs(format, args, &made.records, &count, &error) || count != kCount) abort();
  va_end(args);
  for (size_t i = 0; i < kCount; ++i) {
    const MsgFmt_Arg &record = made.records[i];
    made.values[i].integer =
        record.type == MSGFMT_ARG_INT32 ? record.v.signed32 : record.v.signed64;
  }
  return made;
}

// Numbers of four digits could make texts of gigabytes.
bool IsModest(const string &format) {
  size_t digits = 0;
  for (const char c : format) {
    digits = c >= '0' && c <= '9' ? digits + 1 : 0;
    if (digits > 3) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  static const Arguments arguments =
      Make("%d%lld%s%ls%g%p%s%*1$d", 7, 1LL << 40, "text", L"w\u20ac", 0.5,
           reinterpret_cast<void *>(16), nullptr, -12);
  const string format = string(reinterpret_cast<const char *>(bytes), size).c_str();
  if (!IsModest(format)) return 0;
  size_t length = 0;
  const HeapStr text(MsgFmt_Asprintf(&length, format.c_str(), arguments.records, kCount));
  if (text == nullptr) return 0;
  char *direct = nullptr;
  const int directLength = bsd_vsnprintf_values(&direct, 0, format.c_str(), arguments.values);
  const HeapStr owner(direct);
  if (directLength < 0 || static_cast<size_t>(directLength) != length ||
      memcmp(text.get(), direct, length + 1) != 0) {
    fprintf(stderr, "another text, format <%s>\n", format.c_str());
    abort();
  }
  return 0;
}
