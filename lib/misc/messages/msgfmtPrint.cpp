// msgfmtPrint.cpp -- captured arguments back into text, by the conversions of the printf engine.
//
// Tests: tests/unit/messages_test.cpp, fuzz/msgfmt_fuzz.cpp

#include <cerrno>
#include <cstring>
#include <iterator>
#include <span>

#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/heap.h"

namespace {

using Records = std::span<const MsgFmt_Arg>;

// Whether the record at `position` exists and has the type; true for no position.
bool Holds(Records records, size_t position, MsgFmt_ArgType wanted) {
  if (position == 0) return true;
  if (position > records.size()) return false;
  const MsgFmt_ArgType type = records[position - 1].type;
  return type == wanted || (type == MSGFMT_ARG_ERRNO && wanted == MSGFMT_ARG_STRING8);
}

// Whether the records are what the format asks for, and the format could have been captured.  A format may
// come from a translation, and the engine would trust it and take a number for the address of a string.
bool Suit(Records records, const char *format) {
  for (FormatWalk walk(format); walk.Next();) {
    const FormatPlaces &places = walk.Places();
    const MsgFmt_ArgType type = MsgFmtTypeOf(walk.Conversion());
    if (type == MSGFMT_ARG_INVALID && walk.Conversion().character != '%') return false;
    if (!Holds(records, places.width, kMsgFmtCountType) ||
        !Holds(records, places.precision, kMsgFmtCountType) ||
        !Holds(records, places.value, type)) {
      return false;
    }
  }
  return true;
}

const char *WithoutId(const char *text) {
  std::string_view id;
  const char *rest = text;
  if (text != nullptr) static_cast<void>(MsgFmtSplitId(text, &id, &rest));
  return rest;
}

FormatValue ValueOf(const MsgFmt_Arg &arg) {
  FormatValue value{};
  switch (arg.type) {
    case MSGFMT_ARG_INVALID:
      break;
    case MSGFMT_ARG_INT32:
    case MSGFMT_ARG_PTR32:
      value.integer = arg.v.signed32;
      break;
    case MSGFMT_ARG_INT64:
    case MSGFMT_ARG_PTR64:
      value.integer = arg.v.signed64;
      break;
    case MSGFMT_ARG_FLOAT64:
      value.real = arg.v.float64;
      break;
    case MSGFMT_ARG_STRING8:
    case MSGFMT_ARG_ERRNO:
      value.pointer = WithoutId(arg.v.string8);
      break;
    case MSGFMT_ARG_STRING16:
    case MSGFMT_ARG_STRING32:
      value.pointer = arg.v.string32;
      break;
  }
  return value;
}

}  // namespace

bool MsgFmtSplitId(const char *text, std::string_view *id, const char **rest) {
  constexpr std::string_view kBegin = "@&!*@*@(";
  if (strncmp(text, kBegin.data(), kBegin.size()) != 0) return false;
  const char *const begin = text + kBegin.size();
  const char *const end = strchr(begin, ')');
  if (end == nullptr) return false;
  *id = {begin, static_cast<size_t>(end - begin)};
  *rest = end + 1;
  return true;
}

char *MsgFmt_Asprintf(size_t *length, const char *format, const MsgFmt_Arg *args, int numArgs) {
  const Records records(args, static_cast<size_t>(numArgs));
  if (!Suit(records, format)) {
    errno = EINVAL;
    return nullptr;
  }
  FormatValue inFrame[8];
  HeapArray<FormatValue> inHeap;
  FormatValue *values = inFrame;
  if (records.size() > std::size(inFrame)) {
    inHeap = Heap_Array<FormatValue>(records.size());
    if (!inHeap) return nullptr;
    values = inHeap.get();
  }
  for (size_t i = 0; i < records.size(); ++i) values[i] = ValueOf(records[i]);
  char *text = nullptr;
  const int count = bsd_vsnprintf_values(&text, 0, format, {values, records.size()});
  if (count < 0) return nullptr;
  if (length != nullptr) *length = static_cast<size_t>(count);
  return text;
}
