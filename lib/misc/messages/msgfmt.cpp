// msgfmt.cpp -- captures the arguments of a format.
//
// Three steps: scan the format for the type at every position; fetch the arguments, which can only
// be done from the first on and knowing each type; copy the strings.  Strings come last because a
// precision may be an argument behind its string, and no more of a string may be read than that.

#include "lib/public/msgfmt.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "lib/misc/messages/msgfmtCapture.h"
#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/fatal.h"

namespace {

// What can be wrong with a format as such.
enum class Status : int { Ok, FormatError, OutOfMemory, BadPosition };

// The wider of two precisions, of which -1 is the widest.
int32_t WiderPrecision(int32_t a, int32_t b) {
  return static_cast<int32_t>(std::max(static_cast<uint32_t>(a), static_cast<uint32_t>(b)));
}

// An argument that a conversion asks for.
struct Request {
  size_t position = 0;
  MsgFmt_ArgType type = MSGFMT_ARG_INVALID;
  int32_t precision = -1;
  Status status = Status::Ok;
  // For error texts: the position as it is written, with its `$`, or nothing; and what follows it.
  const char *where = "";
  int whereLength = 0;
  const char *what = "";
  int whatLength = 0;

  explicit Request(const FormatWalk &walk) {
    const char *const digits = walk.Conversion().positionDigits;
    what = walk.Begin() + 1;
    if (digits != nullptr) {
      where = digits;
      what = strchr(digits, '$') + 1;
      whereLength = static_cast<int>(what - where);
    }
    whatLength = static_cast<int>(walk.End() - what);
  }
};

// The single letter for what a size modifier means, of those that some conversion refuses.
char LetterOf(FormatSize size) {
  return size == FormatSize::IntMax ? 'j' : 'L';
}

// Fails for a conversion whose value cannot be captured.
bool FailUnsupported(MsgFmtCapture &capture, const Request &r, const FormatConversion &conversion) {
  if (conversion.kind == FormatKind::Count) {
    return capture.Fail("MsgFmtGetArg1: %%n not supported, pos \"%.*s\", type \"%.*s\"",
                        r.whereLength, r.where, r.whatLength, r.what);
  }
  if (conversion.kind != FormatKind::Literal) {
    return capture.Fail("MsgFmtGetArg1: %%%c%c not supported, pos \"%.*s\", type \"%.*s\"",
                        LetterOf(conversion.size), conversion.character, r.whereLength, r.where,
                        r.whatLength, r.what);
  }
  capture.Fail("MsgFmtGetArg1: %%%c not understood, pos \"%.*s\", type \"%.*s\"",
               conversion.character, r.whereLength, r.where, r.whatLength, r.what);
  Fatal_NotReached(kMsgFmtSource, 1345);
}

// Notes the type of the argument at the position.
bool MsgFmtGetArg1(MsgFmtCapture &capture, const Request &r, const FormatConversion &conversion) {
  const int position = static_cast<int>(r.position);
  if (r.status != Status::Ok) {
    return capture.Fail("MsgFmtGetArg1: bad specifier, status %d, pos \"%.*s\", type \"%.*s\"",
                        static_cast<int>(r.status), r.whereLength, r.where, r.whatLength, r.what);
  }
  if (!capture.Cover(r.position)) {
    return capture.Fail("MsgFmtGetArg1: out of memory at arg %d", position);
  }
  if (r.type == MSGFMT_ARG_INVALID) return FailUnsupported(capture, r, conversion);
  MsgFmt_Arg &arg = capture.At(r.position);
  if (arg.type != MSGFMT_ARG_INVALID && arg.type != r.type) {
    return capture.Fail(
        "MsgFmtGetArg1: incompatible specifiers for argument %d, old type %d, new type %d, pos "
        "\"%.*s\", type \"%.*s\"",
        position, arg.type, r.type, r.whereLength, r.where, r.whatLength, r.what);
  }
  arg.type = r.type;
  arg.precision = WiderPrecision(arg.precision, r.precision);
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

// The parser counts a number that is too large as the largest.
Status StatusOf(int position) {
  return position == INT_MAX ? Status::BadPosition : Status::Ok;
}

// The arguments of one conversion.
bool ScanOne(MsgFmtCapture &capture, const FormatWalk &walk) {
  const FormatConversion &conversion = walk.Conversion();
  const FormatPlaces &places = walk.Places();
  if (conversion.kind == FormatKind::End) return FailByStatus(capture, Status::FormatError);
  Request request(walk);
  for (const auto &[count, place] : {std::pair{conversion.width, places.width},
                                     std::pair{conversion.precision, places.precision}}) {
    if (place == 0) continue;
    request.position = place;
    request.type = kMsgFmtCountType;
    request.status = StatusOf(count.number);
    if (!MsgFmtGetArg1(capture, request, conversion)) return false;
  }
  if (conversion.character == '%') return true;
  request.position = places.value;
  request.type = MsgFmtTypeOf(conversion);
  request.status = StatusOf(conversion.position);
  if (conversion.kind == FormatKind::String && conversion.HasPrecision()) {
    // One that is an argument is not known yet: WidenStrings.
    request.precision = places.precision != 0 ? 0 : conversion.precision.number;
  }
  return MsgFmtGetArg1(capture, request, conversion);
}

// *hasUnknown: some strings have precisions that are arguments.
bool Scan(MsgFmtCapture &capture, const char *format, bool *hasUnknown) {
  for (FormatWalk walk(format); walk.Next();) {
    if (!ScanOne(capture, walk)) return false;
    const bool isString = walk.Conversion().kind == FormatKind::String;
    *hasUnknown |= isString && walk.Places().precision != 0;
  }
  return true;
}

// Makes up for the precisions that are arguments, now that these are known.
void WidenStrings(MsgFmtCapture &capture, const char *format) {
  for (FormatWalk walk(format); walk.Next();) {
    const FormatPlaces &places = walk.Places();
    if (walk.Conversion().kind != FormatKind::String || places.precision == 0) continue;
    const int32_t precision = std::max(capture.At(places.precision).v.signed32, -1);
    MsgFmt_Arg &string = capture.At(places.value);
    string.precision = WiderPrecision(string.precision, precision);
  }
}

bool GetArgs(MsgFmtCapture &capture, const char *format, MsgFmtArgList *list, MsgFmt_Arg **args,
             int *numArgs) {
  *args = nullptr;
  *numArgs = 0;
  bool hasUnknown = false;
  if (!Scan(capture, format, &hasUnknown) || !capture.Fetch(list)) return false;
  if (hasUnknown) WidenStrings(capture, format);
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
