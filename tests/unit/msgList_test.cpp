// msgList_test.cpp -- lists of messages, and the pending ones of each thread.

#include "msgList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "err.h"
#include "heap.h"
#include "msg.h"
#include "tests/support/capture.h"

#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

using std::string;

using List = MsgListOwner;

string Text(const MsgList *list) {
  const HeapStr text(MsgList_ToString(list));
  return text == nullptr ? "<null>" : text.get();
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

TEST(MsgList, AFormatThatCannotBeCapturedIsFatal) {
  const string idFormat = "@&!*@*@(msg.a)%2$s";
  EXPECT_EQ(
      "Panic: MsgList_VAppend error: MsgFmt_GetArgs: gap in arguments at position 1\n"
      "format <%2$s>\n",
      FatalText([&] { MsgList_Free(MsgList_Create(idFormat.c_str(), "a", "b")); }));
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
            WithoutStamps(CaptureOutput(Msg_LogPending)));
  List taken(Msg_TakePending());
  const List copy(MsgList_Copy(taken.get()));
  taken.reset();
  EXPECT_EQ("D \xe2\x82\xac\nC\nB\nA 1\n", Text(copy.get()));
  EXPECT_EQ("", CaptureOutput(Msg_LogPending));
  Msg_AppendStr("E");
  Msg_Reset();
  EXPECT_EQ("<null>", Text(Msg_TakePending()));
}

// What one thread appends is its own; and gone with it, though others get its id.  Texts of errno
// values are made meanwhile.
TEST(Msg, ThreadsAreApart) {
  const auto work = [](int me) {
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
  };
  for (int generation = 0; generation < 5; ++generation) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(work, i);
  }
}

}  // namespace
