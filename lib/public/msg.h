// msg.h -- the pending messages of each thread.
//
// A procedure that fails appends a message for the user here and returns its result; its caller decides
// whether the messages are shown, logged or dropped.  They belong to the thread that appended them and
// are freed when it ends; after fork(2) the child has a copy of those of the thread that called it.
// errno is unchanged.  Any thread.  Exhausted memory is fatal.
#pragma once

#include <cstdarg>

#include "lib/public/msgList.h"

// As the MsgList procedures of the same names, on the pending messages of this thread.
void Msg_Append(const char *idFormat, ...) __attribute__((format(printf, 1, 2)));
void Msg_VAppend(const char *idFormat, va_list args) __attribute__((format(printf, 1, 0)));
void Msg_AppendStr(const char *idText);
void Msg_AppendMsgList(MsgList *messages);

// Hands the pending messages of this thread to the caller, who frees them with MsgList_Free; null
// when there are none.
[[nodiscard]] MsgList *Msg_TakePending();

// Logs the pending messages of this thread, which stay.
void Msg_LogPending();

// Drops the pending messages of this thread.
void Msg_Reset();
