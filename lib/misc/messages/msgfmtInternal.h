// msgfmtInternal.h -- shared by the sources of this folder.
#pragma once

#include <string_view>

#include "lib/public/formatGrammar.h"
#include "lib/public/msgfmt.h"

// Splits a text that begins with a well-formed message id, "@&!*@*@(" id ")", into the id and what
// follows.  False for any other text.
[[nodiscard]] bool MsgFmtSplitId(const char *text, std::string_view *id, const char **rest);

// The type of the record for the value of a conversion; MSGFMT_ARG_INVALID when it has no value, or one
// that cannot be captured.
[[nodiscard]] MsgFmt_ArgType MsgFmtTypeOf(const FormatConversion &conversion);

// The type of the records for widths and precisions.
inline constexpr MsgFmt_ArgType kMsgFmtCountType = MSGFMT_ARG_INT32;

// Which member of a record's union is in use.
inline bool MsgFmtIsString8(MsgFmt_ArgType type) {
  return type == MSGFMT_ARG_STRING8 || type == MSGFMT_ARG_ERRNO;
}
inline bool MsgFmtIsString32(MsgFmt_ArgType type) {
  return type == MSGFMT_ARG_STRING16 || type == MSGFMT_ARG_STRING32;
}
inline bool MsgFmtIsString(MsgFmt_ArgType type) {
  return MsgFmtIsString8(type) || MsgFmtIsString32(type);
}

inline constexpr char kMsgFmtSource[] = "lib/misc/msgfmt";
