// msgfmt.cpp -- captures the arguments of a format.
//
// Idea:  three steps.  The format is scanned for the type of the argument at each position.  The
//        arguments are fetched, which is only possible from the first on and knowing every type.  The
//        strings are copied; last, because the precision that says how much of a string may be read
//        can be an argument behind it.
// Tests: tests/unit/messages_test.cpp, fuzz/msgfmt_fuzz.cpp

#include "lib/public/msgfmt.h"

#include <algorithm>
#include <cstring>

#include "lib/misc/messages/msgfmtCapture.h"
#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/fatal.h"

namespace {

// Only a mistake can name a position above this, and records for all positions below one would fill
// the memory.
constexpr size_t kLastPosition = 0xFFFF;

// What can be wrong with a format as such; the numbers are in error texts.
enum class Status : int { Ok, FormatError, OutOfMemory, BadPosition };

// A conversion as error texts quote it: the position as it is written, with its `$`, or nothing; and
// the rest.
struct Quote {
  const char *position = "";
  int positionLength = 0;
  const char *type;
  int typeLength;

  explicit Quote(const FormatWalk &walk) : type(walk.Begin() + 1) {
    const char *const digits = walk.Conversion().positionDigits;
    if (digits != nullptr) {
      position = digits;
      type = strchr(digits, '$') + 1;
      positionLength = static_cast<int>(type - position);
    }
    typeLength = static_cast<int>(walk.End() - type);
  }
};

// Fails because of a conversion whose value cannot be captured.
bool FailUnsupported(MsgFmtCapture &capture, const FormatWalk &walk) {
  const FormatConversion &conversion = walk.Conversion();
  const Quote q(walk);
  if (conversion.kind == FormatKind::Count) {
    return capture.Fail("MsgFmtGetArg1: %%n not supported, pos \"%.*s\", type \"%.*s\"",
                        q.positionLength, q.position, q.typeLength, q.type);
  }
  if (conversion.kind != FormatKind::Literal) {
    // No other modifiers are refused: of their spellings, one letter for each meaning.
    const char modifier = conversion.size == FormatSize::IntMax ? 'j' : 'L';
    return capture.Fail("MsgFmtGetArg1: %%%c%c not supported, pos \"%.*s\", type \"%.*s\"",
                        modifier, conversion.character, q.positionLength, q.position, q.typeLength,
                        q.type);
  }
  capture.Fail("MsgFmtGetArg1: %%%c not understood, pos \"%.*s\", type \"%.*s\"",
               conversion.character, q.positionLength, q.position, q.typeLength, q.type);
  Fatal_NotReached(kMsgFmtSource, 1345);
}

// Notes that the conversion at which the walk is takes an argument of `type` at `position`.
bool MsgFmtGetArg1(MsgFmtCapture &capture, const FormatWalk &walk, size_t position,
                   MsgFmt_ArgType type) {
  if (position > kLastPosition) {
    const Quote q(walk);
    return capture.Fail("MsgFmtGetArg1: bad specifier, status %d, pos \"%.*s\", type \"%.*s\"",
                        static_cast<int>(Status::BadPosition), q.positionLength, q.position,
                        q.typeLength, q.type);
  }
  if (!capture.Cover(position)) {
    return capture.Fail("MsgFmtGetArg1: out of memory at arg %d", static_cast<int>(position));
  }
  if (type == MSGFMT_ARG_INVALID) return FailUnsupported(capture, walk);
  MsgFmt_Arg &arg = capture.At(position);
  if (arg.type != MSGFMT_ARG_INVALID && arg.type != type) {
    const Quote q(walk);
    return capture.Fail(
        "MsgFmtGetArg1: incompatible specifiers for argument %d, old type %d, new type %d, pos "
        "\"%.*s\", type \"%.*s\"",
        static_cast<int>(position), arg.type, type, q.positionLength, q.position, q.typeLength,
        q.type);
  }
  arg.type = type;
  arg.precision = StringLimit().AsPrecision();
  return true;
}

bool FailByStatus(MsgFmtCapture &capture, Status status) {
  switch (status) {
    case Status::FormatError:
      return capture.Fail("MsgFmt_GetArgs: error in format string");
    case Status::OutOfMemory:
      return capture.Fail("MsgFmt_GetArgs: out of memory");
    default:
      return capture.Fail("MsgFmt_GetArgs: error %d", static_cast<int>(status));
  }
}

// Notes the types of all arguments.  *cutsStrings: some string has a precision.
bool Scan(MsgFmtCapture &capture, const char *format, bool *cutsStrings) {
  *cutsStrings = false;
  for (FormatWalk walk(format); walk.Next();) {
    const FormatConversion &conversion = walk.Conversion();
    const FormatPlaces &places = walk.Places();
    if (conversion.kind == FormatKind::End) return FailByStatus(capture, Status::FormatError);
    for (const size_t place : {places.width, places.precision}) {
      if (place != 0 && !MsgFmtGetArg1(capture, walk, place, kMsgFmtCountType)) return false;
    }
    if (conversion.character == '%') continue;
    if (!MsgFmtGetArg1(capture, walk, places.value, MsgFmtTypeOf(conversion))) return false;
    *cutsStrings |= conversion.kind == FormatKind::String && conversion.HasPrecision();
  }
  return true;
}

// Limits each string to what the widest of its conversions prints.  All precisions are known now, those
// that are arguments, too.
void LimitStrings(MsgFmtCapture &capture, const char *format) {
  for (MsgFmt_Arg &arg : capture.Records()) {
    if (MsgFmtIsString(arg.type)) arg.precision = 0;
  }
  for (FormatWalk walk(format); walk.Next();) {
    const FormatConversion &conversion = walk.Conversion();
    if (conversion.kind != FormatKind::String) continue;
    StringLimit limit;
    if (const size_t place = walk.Places().precision; place != 0) {
      limit = StringLimit(capture.At(place).v.signed32);
    } else if (conversion.HasPrecision()) {
      limit = StringLimit(conversion.precision.number);
    }
    MsgFmt_Arg &string = capture.At(walk.Places().value);
    string.precision = std::max(limit, StringLimit(string.precision)).AsPrecision();
  }
}

bool GetArgs(MsgFmtCapture &capture, const char *format, MsgFmtArgList *list, MsgFmt_Arg **args,
             int *numArgs) {
  *args = nullptr;
  *numArgs = 0;
  bool cutsStrings;
  if (!Scan(capture, format, &cutsStrings) || !capture.Fetch(list)) return false;
  if (cutsStrings) LimitStrings(capture, format);
  if (!capture.CopyStrings()) return FailByStatus(capture, Status::OutOfMemory);
  capture.HandOver(args, numArgs);
  return true;
}

}  // namespace

bool MsgFmt_GetArgs(const char *format, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                    char **error) {
  MsgFmtCapture capture(nullptr, error);
  return GetArgs(capture, format, &args, argsOut, numArgs);
}

bool MsgFmt_GetArgsWithBuf(const char *format, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                           char **error, void *buffer, size_t *size) {
  MsgFmtBuffer room(buffer, *size);
  MsgFmtCapture capture(&room, error);
  const bool ok = GetArgs(capture, format, &args, argsOut, numArgs);
  *size = room.Used();
  return ok;
}
