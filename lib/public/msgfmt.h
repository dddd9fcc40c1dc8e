// msgfmt.h -- the arguments of a printf format, captured now and formatted later.
//
// A message is kept as its format and its arguments, so that it can be translated before it is
// printed.  The format language is that of str.h without %n.  Positions count from 1.  Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// What a record holds.
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
  MSGFMT_ARG_ERRNO = 9,  // a string that Err_ErrnoToString gave out
};

// What an error number is.
enum MsgFmt_ErrorKind : int32_t {
  MSGFMT_ERROR_NONE = 0,
  MSGFMT_ERROR_ERRNO = 1,  // an errno value of this host
};

struct MsgFmt_Arg {
  MsgFmt_ArgType type;
  int32_t precision;  // how much of a string is captured, in its units; -1 for all of it
  union {
    int32_t signed32;
    int64_t signed64;  // also the bits of a pointer
    double float64;
    char *string8;      // also of MSGFMT_ARG_ERRNO; null for a null argument
    wchar_t *string32;  // 32-bit units
  } v;
  int32_t errorKind;    // of MSGFMT_ARG_ERRNO: a MsgFmt_ErrorKind
  int32_t errorNumber;  // of MSGFMT_ARG_ERRNO
};

// Captures every argument that `format` refers to.  True with a new array of *numArgs records in
// *args (null when there are none), which the caller frees with MsgFmt_FreeArgs.  False with
// *args null, *numArgs 0 and in *error, if error is not null, a new text that the caller frees.  A
// conversion that no table knows is fatal.
[[nodiscard]] bool MsgFmt_GetArgs(const char *format, va_list args, MsgFmt_Arg **argsOut,
                                  int *numArgs, char **error);

// The same with records and strings in the caller's buffer, from which *size bytes may be used and
// which receives in *size how many were.  Nothing is freed; a buffer that is too small is the
// failure "out of memory".  The text of an error stands in the buffer, too.
[[nodiscard]] bool MsgFmt_GetArgsWithBuf(const char *format, va_list args, MsgFmt_Arg **argsOut,
                                         int *numArgs, char **error, void *buffer, size_t *size);

// The text of `format` with the captured arguments, in a new string that the caller frees; null
// with errno as for Str_Asprintf.  length may be null.  A string argument that begins with a
// message id is printed without it.
[[nodiscard]] char *MsgFmt_Asprintf(size_t *length, const char *format, const MsgFmt_Arg *args,
                                    int numArgs);

// A deep copy of an array from MsgFmt_GetArgs; null for no records.
[[nodiscard]] MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs);

// Frees an array from MsgFmt_GetArgs or MsgFmt_CopyArgs with its strings; null is accepted.
void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs);
