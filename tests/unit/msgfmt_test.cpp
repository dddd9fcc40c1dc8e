// msgfmt_test.cpp -- captured arguments: printed later as the printf engine prints them at once.

#include "msgfmt.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "err.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/printfPeer.h"

namespace {

using std::string;

// The records of one capture, or the text of its error.
struct Captured {
  static constexpr size_t kHeap = 0;
  std::vector<char> room;  // of a capture into a buffer, which begins at an odd address
  MsgFmt_Arg *args = nullptr;
  int count = 0;
  size_t used;
  string error;

  Captured(size_t size, const char *format, ...) : room(size + 1), used(size) {
    va_list list;
    va_start(list, format);
    char *text = nullptr;
    const bool ok = size == kHeap ? MsgFmt_GetArgs(format, list, &args, &count, &text)
                                  : MsgFmt_GetArgsWithBuf(format, list, &args, &count, &text,
                                                          room.data() + 1, &used);
    va_end(list);
    if (!ok) error = text;
    if (size == kHeap) free(text);
  }
  Captured(const Captured &) = delete;
  Captured &operator=(const Captured &) = delete;
  ~Captured() {
    if (room.size() == 1) MsgFmt_FreeArgs(args, count);
  }

  // From a copy, which is freed by itself.
  string Print(const string &format) const {
    MsgFmt_Arg *const copies = MsgFmt_CopyArgs(args, count);
    size_t length = 0;
    char *const text = MsgFmt_Asprintf(&length, format.c_str(), copies, count);
    MsgFmt_FreeArgs(copies, count);
    return PeerTake(text, text == nullptr ? -1 : static_cast<int>(length));
  }
};

// Captured in either way, it prints as it does at once.
template <typename... Args>
void Same(const string &format, Args... args) {
  const string expected = Ours(format, args...);
  const Captured heap(Captured::kHeap, format.c_str(), args...);
  ASSERT_EQ(expected, heap.Print(format)) << format << heap.error;
  ASSERT_EQ(expected, Captured(1000, format.c_str(), args...).Print(format)) << format;
}

template <typename T>
void Grid(const std::vector<string> &sizes, const string &conversions, T value) {
  for (const string flags : {"", "-", "+", "#", "0", "-#", "+0", "#0", "+#", "-+#0"}) {
    for (const string &size : sizes) {
      for (const char conversion : conversions) {
        const string end = size + conversion + ">";
        for (const char *const extent : {"", ".", "14.2"}) Same("<%" + flags + extent + end, value);
        for (const auto &[width, precision] : {std::pair{9, 3}, {-9, -1}, {0, 0}}) {
          Same("%%<%" + flags + "*.*" + end + " %d", width, precision, value, 4);
          Same("%3$" + flags + "*1$.*2$" + end + " %1$i %d", width, precision, value);
        }
        if (testing::Test::HasFatalFailure()) return;
      }
    }
  }
}

TEST(MsgFmt, PrintsAsWithoutCapture) {
  Grid({"", "h", "hh", "I32"}, "diuoxXc", -1234567);
  Grid({"l", "ll", "q", "L", "j", "t", "z", "Z", "I", "I64"}, "diuoxX", INT64_MIN + 7);
  Grid({"", "h"}, "DOU", int64_t{1} << 40);
  Grid({"l", "j"}, "c", int{'w'});
  Grid({"", "l", "h", "t", "z"}, "eEfFgGaA", -31.4159);
  Grid({"", "h", "t", "z"}, "s", "a text");
  Grid({"l", "ll", "L", "j"}, "s", L"w\u20ac\U0001f600 text");
  Grid({"", "l"}, "p", reinterpret_cast<void *>(0x1234abcd));
  Same("no argument, 100%%");
  Same("%s|%ls|%S|%lc", nullptr, nullptr, L"wide", 0x20ac);
  // More of each kind than a host passes in registers, and more than an array has at first.
  Same("%9$d %8$s %7$g %6$lld %5$d %4$d %3$d %2$s %1$g|%10$g%g%g%g%g%g%g", 1.0, "b", 3, 4, 5, 6LL,
       7.0, "h", 9, .2, .3, .4, .5, .6, .7, .8);
}

TEST(MsgFmt, ReadsNoMoreOfAStringThanIsPrinted) {
  const std::unique_ptr<char[]> bytes(new char[3]{'a', 'b', 'c'});
  const std::unique_ptr<wchar_t[]> wide(new wchar_t[2]{0x20ac, 'x'});
  Same("%.3s|%.*ls", bytes.get(), 2, wide.get());
  Same("%1$.1s|%1$.*2$s|%3$.*4$S", bytes.get(), 3, wide.get(), 1);
  for (const char *const format : {"%1$.1s%1$s", "%1$s%1$.1s", "%1$.1s%1$.*2$s"}) {
    Same(format, "to its end", -5);
  }
}

TEST(MsgFmt, ErrorsInFormats) {
  const std::pair<const char *, string> rows[] = {
      {"%2$s", "MsgFmt_GetArgs: gap in arguments at position 1"},
      {"%1$d %1$s",
       "MsgFmtGetArg1: incompatible specifiers for argument 1, old type 1, new type 6, "
       "pos \"1$\", type \"s\""},
      {"%d%n.", "MsgFmtGetArg1: %n not supported, pos \"\", type \"n\""},
      {"%1$5.2llf", "MsgFmtGetArg1: %Lf not supported, pos \"1$\", type \"5.2llf\""},
      {"%s %-5.3l", "MsgFmt_GetArgs: error in format string"},
      {"%99999999999$d",
       "MsgFmtGetArg1: bad specifier, status 3, pos \"99999999999$\", type \"d\""},
  };
  for (const auto &[format, error] : rows) {
    EXPECT_EQ(error, Captured(Captured::kHeap, format, 1, 2, 3, 4).error);
    const Captured buffer(1000, format, 1, 2, 3, 4);
    EXPECT_EQ(error, buffer.error);
    EXPECT_EQ(error.size() + 1, buffer.used);
  }
  EXPECT_EQ("Panic: NOT_REACHED lib/misc/msgfmt:1345\n",
            FatalText([] { Captured(Captured::kHeap, "%2$-5.3lk", 1, 2); }));
}

// In a buffer that is too small, and on the heap.
TEST(MsgFmt, ExhaustedMemory) {
  const char *const format = "%s%d%d%d%ls";
  const auto capture = [=](size_t size) { return Captured(size, format, "a", 2, 3, 4, L"e"); };
  const size_t needed = capture(1000).used;
  EXPECT_EQ("a234e", capture(needed).Print(format));
  for (size_t size = 1; size < needed; ++size) EXPECT_EQ(nullptr, capture(size).args) << size;
  string errors;
  for (int nth = 1; nth <= 5; ++nth) {
    AllocFault fault(nth);
    errors += capture(Captured::kHeap).error + "\n";
  }
  EXPECT_EQ(
      "MsgFmtGetArg1: out of memory at arg 1\nMsgFmtGetArg1: out of memory at arg 5\n"
      "MsgFmt_GetArgs: out of memory\nMsgFmt_GetArgs: out of memory\n\n",
      errors);
}

TEST(MsgFmt, PrintsOnlyWhatWasCaptured) {
  const Captured captured(Captured::kHeap, "%d %s %f %lld %s %p %ls", 7, "@&!*@*@(msg.a)inner: %d",
                          .5, 8LL, Err_ErrnoToString(ENOTDIR), nullptr, L"w");
  string types;
  for (int i = 0; i < captured.count; ++i) types += std::to_string(captured.args[i].type);
  EXPECT_EQ("1652948", types);
  EXPECT_EQ(ENOTDIR, captured.args[4].errorNumber);
  EXPECT_EQ("8 0.5 inne 7 %", captured.Print("%4$zd %3$g %2$.4s %1$x %%"));
  for (const char *const wrong : {"%s", "%ld", "%1$s", "%2$d", "%2$ls", "%2$p", "%3$Lf", "%4$g",
                                  "%8$d", "%*2$d", "%1$.*4$d", "%4$n", "%y", "%1$d %"}) {
    errno = 0;
    EXPECT_EQ(kPeerFailed, captured.Print(wrong)) << wrong;
    EXPECT_EQ(EINVAL, errno);
  }
}

}  // namespace
