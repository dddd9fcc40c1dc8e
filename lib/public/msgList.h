// msgList.h -- lists of messages about failures, to be logged, shown or translated.
//
// A message text may begin with an id, followed by its default English format:
//   "@&!*@*@(msg.File.Copy.open.failure)Unable to open the '%s' file"
// The id ends at the first ")".  A text without a well-formed id is taken literally, as the only argument
// of "@&!*@*@(msg.literal)%s".
//
// A list is a pointer to its first message, null when empty.  The holder of that pointer owns the messages
// and frees them with MsgList_Free.  New messages come first.  A list is used by one thread at a time.
// Texts are UTF-8, not null, and copied.  errno is kept, except by MsgList_Log.  Exhausted memory is
// fatal.
#pragma once

#include <cstdarg>
#include <memory>

#include "lib/public/msgfmt.h"

// One message; it owns everything in it.
struct MsgList {
  MsgList *next;  // the message that was appended before this one
  char *id;
  char *format;      // the text after the id
  MsgFmt_Arg *args;  // of the format; null when numArgs is 0
  int numArgs;
};

// ---- appending, which puts a message in front; with a null `list` the message is dropped --------

// Captures the arguments (msgfmt.h).  A format whose arguments cannot be captured is fatal.  A text
// without a well-formed id is not a format: then the arguments are not looked at.
void MsgList_Append(MsgList **list, const char *idFormat, ...)
    __attribute__((format(printf, 2, 3)));
void MsgList_VAppend(MsgList **list, const char *idFormat, va_list args)
    __attribute__((format(printf, 2, 0)));

// Appends a text without arguments.  After a well-formed id it is still a format, in which %% prints %;
// but one that asks for arguments or is malformed, such as "100% sure", is printed as it is.
void MsgList_AppendStr(MsgList **list, const char *idText);

// Puts `messages`, which may be null, in front and takes ownership; with a null list they are freed.
void MsgList_AppendMsgList(MsgList **list, MsgList *messages);

// ---- new lists of one message, freed by the caller -------------------------------------------

[[nodiscard]] MsgList *MsgList_Create(const char *idFormat, ...)
    __attribute__((format(printf, 1, 2)));
[[nodiscard]] MsgList *MsgList_VCreate(const char *idFormat, va_list args)
    __attribute__((format(printf, 1, 0)));
[[nodiscard]] MsgList *MsgList_CreateStr(const char *idText);

// ---- whole lists; null is the empty list -----------------------------------------------------

// A deep copy in the same order.
[[nodiscard]] MsgList *MsgList_Copy(const MsgList *list);

void MsgList_Free(MsgList *list);

// All texts in the order of the list, in a new string that the caller frees with free(); null for the
// empty list.  Each text ends in a newline, which is added where it is missing.
[[nodiscard]] char *MsgList_ToString(const MsgList *list);

// Logs "[id] text" for each message, with a newline added as above; cut if it is too long for a record.
void MsgList_Log(const MsgList *list);

// ---- for a scope -----------------------------------------------------------------------------

struct MsgListFreer {
  void operator()(MsgList *list) const noexcept { MsgList_Free(list); }
};
using MsgListOwner = std::unique_ptr<MsgList, MsgListFreer>;
