// displayText.cpp -- untrusted text made fit for a terminal, a log or JSON.
// Tests: tests/unit/codeset_test.cpp

#include "lib/public/displayText.h"

#include <cstring>
#include <string_view>

#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/str.h"

namespace {

constexpr char kSource[] = "lib/misc/codeset/displayText";

void Append(DynBuf *out, std::string_view piece) {
  DynBuf_SafeAppend(out, piece.data(), piece.size(), kSource, __LINE__);
}

bool IsControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7F;
}

// Whether `text`, in UTF-8, begins with one of U+0080 to U+009F.
bool BeginsWithC1(std::string_view text) {
  return text.size() >= 2 && text[0] == '\xC2' && static_cast<unsigned char>(text[1]) < 0xA0;
}

void AppendJsonEscape(DynBuf *out, unsigned unit) {
  char escape[7];
  Str_Sprintf(escape, sizeof escape, "\\u%04x", unit);
  Append(out, escape);
}

}  // namespace

char *DisplayText_Line(const char *text) {
  const bool isUtf8 = CodeSet_IsValidUTF8(text);
  ScopedDynBuf line;
  for (std::string_view rest = text; !rest.empty();) {
    const auto byte = static_cast<unsigned char>(rest[0]);
    const bool isC1 = isUtf8 && BeginsWithC1(rest);
    const bool isUnfit = isC1 || IsControl(byte) || (byte >= 0x80 && !isUtf8);
    Append(&line, isUnfit ? "?" : rest.substr(0, 1));
    rest.remove_prefix(isC1 ? 2 : 1);
  }
  return DynBuf_DetachString(&line);
}

char *DisplayText_Json(const char *text) {
  const bool isUtf8 = CodeSet_IsValidUTF8(text);
  ScopedDynBuf json;
  Append(&json, "\"");
  for (std::string_view rest = text; !rest.empty();) {
    const auto byte = static_cast<unsigned char>(rest[0]);
    const bool isC1 = isUtf8 && BeginsWithC1(rest);
    if (isC1) {
      AppendJsonEscape(&json, static_cast<unsigned char>(rest[1]));  // U+0080 is C2 80
    } else if (IsControl(byte)) {
      AppendJsonEscape(&json, byte);
    } else if (byte >= 0x80 && !isUtf8) {
      AppendJsonEscape(&json, 0xFFFD);
    } else {
      if (byte == '"' || byte == '\\') Append(&json, "\\");
      Append(&json, rest.substr(0, 1));
    }
    rest.remove_prefix(isC1 ? 2 : 1);
  }
  Append(&json, "\"");
  return DynBuf_DetachString(&json);
}
