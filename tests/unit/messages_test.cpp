// messages_test.cpp -- what the user is told: texts of errno values, with the host's own as second
// opinion; captured arguments, printed later as the printf engine prints them at once; lists of
// messages, and the pending ones of each thread.
//
// Formats over captured arguments: fuzz/msgfmt_fuzz.cpp.  Linked with the wraps of allocFault.h.

#include <climits>
#include <latch>
#include <memory>

#include "lib/public/err.h"
#include "lib/public/msg.h"
#include "lib/public/msgList.h"
#include "lib/public/msgfmt.h"
#include "tests/support/allocFault.h"
#include "tests/support/printfPeer.h"
#include "tests/support/test.h"

namespace {

using std::string;

// ---- texts of errno values -------------------------------------------------------------------

TEST(Err, TextsAreTheHostsAndTellTheirValue) {
  EXPECT_EQ(-1, Err_StringToErrno(nullptr));
  for (const int number : {0, EPERM, ENOTDIR, 139, -1, INT_MIN, INT_MAX}) {
    errno = number;
    const char *const text = Err_ErrString();
    EXPECT_EQ(number, errno);
    EXPECT_STREQ(strerror(number), text);
    EXPECT_EQ(text, Err_ErrnoToString(number));
    EXPECT_EQ(number, Err_StringToErrno(text));
    EXPECT_EQ(-1, Err_StringToErrno(string(text).c_str()));
  }
  EXPECT_EQ(-1, Err_StringToErrno(nullptr));
}

// ---- captured arguments ----------------------------------------------------------------------

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

// With each size and conversion; flags and extents are the engine's.
template <typename T>
void SameForAll(const std::vector<string> &sizes, const string &conversions, T value) {
  for (const string &size : sizes) {
    for (const char conversion : conversions) {
      const string end = size + conversion + ">";
      Same("%%<%+" + end + "<%-*.*" + end + " %d", value, 9, 3, value, 4);
      Same("%3$0*1$.*2$" + end + " %1$i %d", -9, -1, value);
    }
  }
}

TEST(MsgFmt, PrintsAsWithoutCapture) {
  SameForAll({"", "h", "hh", "I32"}, "diuoxXc", -1234567);
  SameForAll({"l", "ll", "q", "L", "j", "t", "z", "Z", "I", "I64"}, "diuoxX", INT64_MIN + 7);
  SameForAll({"", "h"}, "DOU", int64_t{1} << 40);
  SameForAll({"l", "j"}, "c", int{'w'});
  SameForAll({"", "l", "h", "t", "z"}, "eEfFgGaA", -31.4159);
  SameForAll({"", "h", "t", "z"}, "s", "a text");
  SameForAll({"l", "ll", "L", "j"}, "s", L"w\u20ac\U0001f600 text");
  SameForAll({"", "l"}, "p", reinterpret_cast<void *>(0x1234abcd));
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
      {"%jf", "MsgFmtGetArg1: %jf not supported, pos \"\", type \"jf\""},
      {"%s %-5.3l", "MsgFmt_GetArgs: error in format string"},
      {"%1$d%65536$d", "MsgFmtGetArg1: bad specifier, status 3, pos \"65536$\", type \"d\""},
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
  const char *const error = Err_ErrnoToString(ENOTDIR);
  const Captured captured(Captured::kHeap, "%d %s %f %lld %.15s %p %ls %.14s", 7,
                          "@&!*@*@(msg.a)inner: %d", .5, 8LL, error, nullptr, L"w", error);
  string types;
  for (int i = 0; i < captured.count; ++i) types += std::to_string(captured.args[i].type);
  EXPECT_EQ("16529486", types);
  EXPECT_EQ(ENOTDIR, captured.args[4].errorNumber);
  EXPECT_EQ(MSGFMT_ERROR_ERRNO, captured.args[4].errorKind);
  EXPECT_EQ("8 0.5 inne 7 %", captured.Print("%4$zd %3$g %2$.4s %1$x %%"));
  for (const char *const wrong : {"%s", "%ld", "%1$s", "%2$d", "%2$ls", "%2$p", "%3$Lf", "%4$g",
                                  "%9$d", "%*2$d", "%1$.*4$d", "%4$n", "%y", "%1$d %"}) {
    errno = 0;
    EXPECT_EQ(kPeerFailed, captured.Print(wrong)) << wrong;
    EXPECT_EQ(EINVAL, errno);
  }
}

// ---- lists -----------------------------------------------------------------------------------

using List = MsgListOwner;

string Text(const MsgList *list) {
  return Owned(MsgList_ToString(list));
}

// By MsgList_Create with an argument, and by MsgList_CreateStr.
TEST(MsgList, IdsAndFormats) {
  struct {
    const char *idFormat, *id, *text, *textAsItIs;
  } const rows[] = {
      {"@&!*@*@(a.b)Hello %s", "a.b", "Hello x\n", "Hello %s\n"},
      {"@&!*@*@(msg.x)(%s) 100%%\n", "msg.x", "(x) 100%\n", "(%s) 100%%\n"},
      {"@&!*@*@(msg.x)50%% off", "msg.x", "50% off\n", "50% off\n"},
      {"@&!*@*@()", "", "\n", "\n"},
      {"@&!*@*@a.b)%s", "msg.literal", "@&!*@*@a.b)%s\n", "@&!*@*@a.b)%s\n"},
      {"@&!*@*@(a.b", "msg.literal", "@&!*@*@(a.b\n", "@&!*@*@(a.b\n"},
      {"100% sure, %d %n%", "msg.literal", "100% sure, %d %n%\n", "100% sure, %d %n%\n"},
  };
  for (const auto &row : rows) {
    errno = EXDEV;
    const List list(MsgList_Create(row.idFormat, "x"));
    const List asItIs(MsgList_CreateStr(row.idFormat));
    EXPECT_STREQ(row.id, list->id);
    EXPECT_STREQ(row.id, asItIs->id);
    EXPECT_EQ(row.text, Text(list.get()));
    EXPECT_EQ(row.textAsItIs, Text(asItIs.get()));
    EXPECT_EQ(EXDEV, errno);
  }
}

// Of a long text as much is told as a record has room for; so also in the log of a list.
TEST(MsgList, AFormatThatCannotBeCapturedIsFatal) {
  const string gap =
      "Panic: MsgList_VAppend error: MsgFmt_GetArgs: gap in arguments at position 1\nformat <%2$s";
  for (const size_t length : {size_t{0}, size_t{2000}}) {
    const string idFormat = "@&!*@*@(msg.a)%2$s" + string(length, 'f');
    const string fits(length == 0 ? 0 : 7 + 1019 - gap.size(), 'f');
    EXPECT_EQ(gap + fits + (length == 0 ? ">\n" : "...\n"),
              FatalText([&] { MsgList_Free(MsgList_Create(idFormat.c_str(), "a", "b")); }));
  }
  EXPECT_EQ("[msg.literal] " + string(1019 - 14, 't') + "...\n",
            LogOf([] { MsgList_Log(List(MsgList_CreateStr(string(2000, 't').c_str())).get()); }));
}

TEST(Msg, NewMessagesComeFirst) {
  errno = EXDEV;
  Msg_Append("@&!*@*@(msg.a)A %d", 1);
  Msg_AppendStr("B");
  MsgList *others = MsgList_Create("@&!*@*@(msg.c)C%c", '\n');
  MsgList_Append(&others, "@&!*@*@(msg.d)D %ls", L"\u20ac");
  Msg_AppendMsgList(others);
  Msg_AppendMsgList(nullptr);
  MsgList_AppendMsgList(nullptr, MsgList_Create("@&!*@*@(msg.a)%s", "freed"));
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ("[msg.d] D \xe2\x82\xac\n[msg.c] C\n[msg.literal] B\n[msg.a] A 1\n",
            LogOf(Msg_LogPending));
  List taken(Msg_TakePending());
  const List copy(MsgList_Copy(taken.get()));
  taken.reset();
  EXPECT_EQ("D \xe2\x82\xac\nC\nB\nA 1\n", Text(copy.get()));
  EXPECT_EQ("", CaptureOutput(Msg_LogPending));
  Msg_AppendStr("E");
  Msg_Reset();
  EXPECT_EQ("(null)", Text(Msg_TakePending()));
}

// What one thread appends is its own, and gone with it; also after fork, when the host gives a new thread
// the id of one that is not there any more.  Texts of errno values are made meanwhile.
TEST(Msg, ThreadsAreApart) {
  std::latch left(4), end(1);
  const auto work = [&](int me) {
    for (int round = 0; round < 200; ++round) {
      ASSERT_EQ(nullptr, Msg_TakePending());
      const char *const error = Err_ErrnoToString(round);
      ASSERT_EQ(round, Err_StringToErrno(error));
      Msg_Append("@&!*@*@(msg.a)%d.%d", me, round);
      Msg_AppendStr(error);
      const List taken(Msg_TakePending());
      ASSERT_EQ(error + ("\n" + std::to_string(me)) + "." + std::to_string(round) + "\n",
                Text(taken.get()));
    }
    Msg_AppendStr("left behind");
    left.count_down(), end.wait();
  };
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(work, i);
  left.wait();
  Msg_AppendStr("main's");
  InChild([] {
    std::thread([] { EXPECT_EQ(nullptr, Msg_TakePending()); }).join();
    EXPECT_EQ("main's\n", Text(List(Msg_TakePending()).get()));
  });
  end.count_down();
  Msg_Reset();
}

}  // namespace
