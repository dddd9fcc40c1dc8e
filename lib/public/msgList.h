// msgList.h -- lists of messages: what went wrong, for whoever logs, shows or translates it.
//
// A message text may carry an id before its default English format:
//   "@&!*@*@(msg.File.Copy.open.failure)Unable to open the '%s' file"
// A text without a well-formed id is taken literally: it is the argument of "%s" under the id
// msg.literal.
// A list is a pointer to its first message and null when empty.  New messages come first.  A list
// belongs to one thread at a time.  Exhausted memory is fatal.
#pragma once

#include <cstdarg>

#include "msgfmt.h"

struct MsgList {
  MsgList *next;
  char *id;
  char *format;
  MsgFmt_Arg *args;
  int numArgs;
};

// ---- append in front; `list` may be null: then the message is dropped ---------------------------

// A format whose arguments cannot be captured is fatal.
void MsgList_Append(MsgList **list, const char *idFormat, ...)
    __attribute__((format(printf, 2, 3)));
void MsgList_VAppend(MsgList **list, const char *idFormat, va_list args)
    __attribute__((format(printf, 2, 0)));

// Appends a text as it is: a % in it is no conversion.
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

// All texts, each ending in a newline, in a new string that the caller frees; null when empty.
[[nodiscard]] char *MsgList_ToString(const MsgList *list);

// Logs "[id] text" for each message.
void MsgList_Log(const MsgList *list);
