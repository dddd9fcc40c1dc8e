// msgfmt.h -- the arguments of a printf format, captured now and formatted later.
//
// A message is kept as its format and its arguments, so that it can be translated before it is
// printed.  The format language is that of str.h, and captured arguments print as Str_Asprintf would have
// printed them at once.  But a capture is stricter:
//   %n, and floating point with a modifier for long double or intmax_t, cannot be captured;
//   a position has one type wherever it is used, none may be left out, and 65535 is the last;
//   a conversion must be complete;
//   an unknown conversion character is fatal.
// Positions count from 1; a width or precision that is an argument has a position, too.  Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// The type of the argument in a record.
enum MsgFmt_ArgType : int32_t {
  MSGFMT_ARG_INVALID = 0,  // a position that the format does not mention
  MSGFMT_ARG_INT32 = 1,
  MSGFMT_ARG_INT64 = 2,
  MSGFMT_ARG_PTR32 = 3,  // not produced on 64-bit hosts
  MSGFMT_ARG_PTR64 = 4,
  MSGFMT_ARG_FLOAT64 = 5,
  MSGFMT_ARG_STRING8 = 6,
  MSGFMT_ARG_STRING16 = 7,  // not produced on hosts with 32-bit wide characters
  MSGFMT_ARG_STRING32 = 8,
  MSGFMT_ARG_ERRNO = 9,  // a text of Err_ErrnoToString, not cut by a precision
};

// The kind of an error number.
enum MsgFmt_ErrorKind : int32_t {
  MSGFMT_ERROR_NONE = 0,
  MSGFMT_ERROR_ERRNO = 1,  // an errno value of this host
};

// One argument.
struct MsgFmt_Arg {
  MsgFmt_ArgType type;
  int32_t precision;  // the most units of a string that are captured; -1 for all of them
  union {
    int32_t signed32;  // any integer up to int, as its bits; also a character
    int64_t signed64;  // any longer one; also the bits of a pointer
    double float64;
    char *string8;      // also of MSGFMT_ARG_ERRNO; null for a null argument
    wchar_t *string32;  // likewise; 32-bit units
  } v;
  int32_t errorKind;    // of MSGFMT_ARG_ERRNO: a MsgFmt_ErrorKind
  int32_t errorNumber;  // of MSGFMT_ARG_ERRNO
};

// Captures every argument that `format` (not null) refers to.  Of a string no more units are read than its
// widest precision allows.  The value of `args` is indeterminate afterwards.
//
// On success: true, and *argsOut is a new array of *numArgs records (null when there are none), which the
// caller frees with MsgFmt_FreeArgs.  On failure: false, *argsOut is null, *numArgs 0, and *error a new
// text that the caller frees with free(); it says what is wrong with the format, or that memory ran out.
// error may be null; on success *error is null.
[[nodiscard]] bool MsgFmt_GetArgs(const char *format, va_list args, MsgFmt_Arg **argsOut,
                                  int *numArgs, char **error);

// The same without the heap: records, followed by strings, are placed in `buffer`, from the first address
// on that is aligned for them.  *size is the buffer's size and becomes the number of bytes used.  A buffer
// that is too small counts as exhausted memory.  The text of an error overwrites the buffer, and is cut to
// fit; with a size of 0 *error is null.  Nothing is to be freed.
[[nodiscard]] bool MsgFmt_GetArgsWithBuf(const char *format, va_list args, MsgFmt_Arg **argsOut,
                                         int *numArgs, char **error, void *buffer, size_t *size);

// The text of `format` with captured arguments, in a new string that the caller frees with free();
// *length, if length is not null, is its length.  A string argument that begins with a message id
// (msgList.h) is printed without the id, a null one as "(null)".
//
// The format may differ from that of the capture: a translation may order the arguments by position.
// Null with errno EINVAL when it asks for an argument that is missing or of another type, or is a format
// that could not be captured; otherwise null as from Str_Asprintf.
[[nodiscard]] char *MsgFmt_Asprintf(size_t *length, const char *format, const MsgFmt_Arg *args,
                                    int numArgs);

// A deep copy on the heap of captured records, which the caller frees with MsgFmt_FreeArgs; null for no
// records.  Exhausted memory is fatal.
[[nodiscard]] MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs);

// Frees an array from MsgFmt_GetArgs or MsgFmt_CopyArgs with its strings; null is accepted.  errno
// is kept.
void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs);
