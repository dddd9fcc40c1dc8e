// msgList.h -- lists of messages: what went wrong, for whoever logs, shows or translates it.
//
// A message text may carry an id before its default English format:
//   "@&!*@*@(msg.File.Copy.open.failure)Unable to open the '%s' file"
// The id is what stands up to the first ")".  A text without a well-formed id is taken literally, as
// the only argument of "@&!*@*@(msg.literal)%s".
//
// A list is a pointer to its first message, null when empty; who holds that owns the messages and
// frees them with MsgList_Free.  New messages come first.  A list belongs to one thread at a time.
// Texts are not null, UTF-8 and copied.  errno is kept, but by MsgList_Log.  Exhausted memory is
// fatal.
#pragma once

#include <cstdarg>
#include <memory>

#include "lib/public/msgfmt.h"

// One message; everything in it is its own.
struct MsgList {
  MsgList *next;  // the one that was appended before
  char *id;
  char *format;      // what follows the id
  MsgFmt_Arg *args;  // of the format; null when numArgs is 0
  int numArgs;
};

// ---- append in front; `list` may be null: then the message is dropped ---------------------------

// Captures the arguments (msgfmt.h).  A format whose arguments cannot be captured is fatal.  A
// text without a well-formed id is no format: the arguments are left alone.
void MsgList_Append(MsgList **list, const char *idFormat, ...)
    __attribute__((format(printf, 2, 3)));
void MsgList_VAppend(MsgList **list, const char *idFormat, va_list args)
    __attribute__((format(printf, 2, 0)));

// Appends a text without arguments.  What follows a well-formed id is a format all the same: %% in
// it stands for %; a text that is no format without arguments, as "100% sure", stands for itself.
void MsgList_AppendStr(MsgList **list, const char *idText);

// Puts `messages` in front and owns them from now on; with a null list they are freed.
void MsgList_AppendMsgList(MsgList **list, MsgList *messages);

// ---- new lists of one message, which the caller frees ----------------------------------------

[[nodiscard]] MsgList *MsgList_Create(const char *idFormat, ...)
    __attribute__((format(printf, 1, 2)));
[[nodiscard]] MsgList *MsgList_VCreate(const char *idFormat, va_list args)
    __attribute__((format(printf, 1, 0)));
[[nodiscard]] MsgList *MsgList_CreateStr(const char *idText);

// ---- whole lists; null is the empty one ------------------------------------------------------

// A deep copy in the same order.
[[nodiscard]] MsgList *MsgList_Copy(const MsgList *list);

void MsgList_Free(MsgList *list);

// All texts in the order of the list, each ending in a newline, which is added where it is missing,
// in a new string that the caller frees with free(); null for the empty list.
[[nodiscard]] char *MsgList_ToString(const MsgList *list);

// Logs "[id] text" for each message, a newline being added as above.
void MsgList_Log(const MsgList *list);

// ---- for a scope -----------------------------------------------------------------------------

struct MsgListFreer {
  void operator()(MsgList *list) const noexcept { MsgList_Free(list); }
};
using MsgListOwner = std::unique_ptr<MsgList, MsgListFreer>;
