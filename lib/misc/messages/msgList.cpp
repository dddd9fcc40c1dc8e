// msgList.cpp -- lists of messages.
//
// Tests: tests/unit/messages_test.cpp

#include "lib/public/msgList.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/dynbuf.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/recordText.h"

namespace {

// A message without arguments.
MsgListOwner MakeMessage(std::string_view id, const char *format) {
  MsgListOwner message(Heap_New<MsgList>().release());
  message->id = Heap_SafeStrndup(id.data(), id.size()).release();
  message->format = Heap_SafeStrdup(format).release();
  return message;
}

__attribute__((format(printf, 2, 0))) void CaptureArgs(MsgList *message, const char *format,
                                                       va_list args) {
  char *error = nullptr;
  if (MsgFmt_GetArgs(format, args, &message->args, &message->numArgs, &error)) return;
  Panic("%s",
        RecordText_Format("%s error: %s\nformat <%s>\n", "MsgList_VAppend", error, format).text);
}

void PushFront(MsgList **list, MsgListOwner message) {
  message->next = *list;
  *list = message.release();
}

void AppendLiteral(MsgList **list, const char *text) {
  MsgList_Append(list, "@&!*@*@(msg.literal)%s", text);
}

// The text of one message.  A format that does not suit its arguments, such
// as a text with a stray %, is printed as it is: better than nothing.
HeapStr TextOf(const MsgList &message) {
  const ErrnoKeeper keeper;
  HeapStr text(MsgFmt_Asprintf(nullptr, message.format, message.args, message.numArgs));
  if (text == nullptr && errno == ENOMEM) Fatal_MemAlloc();
  return text != nullptr ? std::move(text) : Heap_SafeStrdup(message.format);
}

const char *MissingNewline(const char *text) {
  const size_t length = strlen(text);
  return length > 0 && text[length - 1] == '\n' ? "" : "\n";
}

void AppendText(DynBuf *all, const char *text) {
  if (!DynBuf_Append(all, text, strlen(text))) Fatal_MemAlloc();
}

}  // namespace

void MsgList_VAppend(MsgList **list, const char *idFormat, va_list args) {
  if (list == nullptr) return;
  const ErrnoKeeper keeper;
  std::string_view id;
  const char *format;
  if (!MsgFmtSplitId(idFormat, &id, &format)) return AppendLiteral(list, idFormat);
  MsgListOwner message = MakeMessage(id, format);
  CaptureArgs(message.get(), message->format, args);
  PushFront(list, std::move(message));
}

void MsgList_Append(MsgList **list, const char *idFormat, ...) {
  va_list args;
  va_start(args, idFormat);
  MsgList_VAppend(list, idFormat, args);
  va_end(args);
}

void MsgList_AppendStr(MsgList **list, const char *idText) {
  if (list == nullptr) return;
  const ErrnoKeeper keeper;
  std::string_view id;
  const char *text;
  if (!MsgFmtSplitId(idText, &id, &text)) return AppendLiteral(list, idText);
  PushFront(list, MakeMessage(id, text));
}

void MsgList_AppendMsgList(MsgList **list, MsgList *messages) {
  MsgListOwner owner(messages);
  if (list == nullptr || messages == nullptr) return;
  MsgList *last = messages;
  while (last->next != nullptr) last = last->next;
  last->next = *list;
  *list = owner.release();
}

MsgList *MsgList_VCreate(const char *idFormat, va_list args) {
  MsgList *list = nullptr;
  MsgList_VAppend(&list, idFormat, args);
  return list;
}

MsgList *MsgList_Create(const char *idFormat, ...) {
  va_list args;
  va_start(args, idFormat);
  MsgList *const list = MsgList_VCreate(idFormat, args);
  va_end(args);
  return list;
}

MsgList *MsgList_CreateStr(const char *idText) {
  MsgList *list = nullptr;
  MsgList_AppendStr(&list, idText);
  return list;
}

MsgList *MsgList_Copy(const MsgList *list) {
  MsgList *copies = nullptr;
  MsgList **end = &copies;
  for (const MsgList *message = list; message != nullptr; message = message->next) {
    *end = MakeMessage(message->id, message->format).release();
    (*end)->args = MsgFmt_CopyArgs(message->args, message->numArgs);
    (*end)->numArgs = message->numArgs;
    end = &(*end)->next;
  }
  return copies;
}

void MsgList_Free(MsgList *list) {
  while (list != nullptr) {
    const HeapPtr<MsgList> message(list);
    list = message->next;
    HeapStr(message->format).reset();
    HeapStr(message->id).reset();
    MsgFmt_FreeArgs(message->args, message->numArgs);
  }
}

// One growing buffer, so that the time is linear in the size of the text.
char *MsgList_ToString(const MsgList *list) {
  if (list == nullptr) return nullptr;
  ScopedDynBuf all;
  for (; list != nullptr; list = list->next) {
    const HeapStr text = TextOf(*list);
    AppendText(&all, text.get());
    AppendText(&all, MissingNewline(text.get()));
  }
  return DynBuf_DetachString(&all);
}

void MsgList_Log(const MsgList *list) {
  for (; list != nullptr; list = list->next) {
    const HeapStr text = TextOf(*list);
    const RecordText record =
        RecordText_Format("[%s] %s%s", list->id, text.get(), MissingNewline(text.get()));
    Log("%s", record.text);
  }
}
