// escape.cpp -- escaping and quoting of bytes.
//
// Idea: every result is the input with some places replaced.  A procedure finds the places from left
// to right; Rewriter copies the run before each place unchanged and appends the replacement.
//
// Tests: tests/unit/containers_test.cpp, fuzz/escape_fuzz.cpp

#include "lib/public/escape.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "lib/public/dynbuf.h"
#include "lib/public/heap.h"

namespace {

// The input, and the result while it is built.  After a failed append there is no result.
class Rewriter {
  std::string_view input_;
  size_t next_ = 0;  // where the input is not copied or replaced yet
  ScopedDynBuf result_;
  bool ok_ = true;

 public:
  explicit Rewriter(std::string_view input) : input_(input) {}

  // Puts `text` in place of the bytes [from, to) of the input.  Places come in order.
  void Replace(size_t from, size_t to, std::string_view text) {
    Append(std::string_view(input_.data() + next_, from - next_));
    Append(text);
    next_ = to;
  }

  // More text behind the last replacement.
  void Append(std::string_view text) {
    ok_ = ok_ && DynBuf_Append(&result_, text.data(), text.size());
  }

  // The result for the caller of the procedure; null when memory ran out on the way.
  [[nodiscard]] char *Finish(size_t *outLength) {
    Replace(input_.size(), input_.size(), {"\0", 1});
    if (!ok_) return nullptr;
    static_cast<void>(DynBuf_Trim(&result_));  // a block that stays too large is no failure
    if (outLength != nullptr) *outLength = result_.size - 1;
    return DynBuf_Detach(&result_);
  }
};

std::string_view Bytes(const void *data, size_t length) {
  return std::string_view(static_cast<const char *>(data), length);
}

// The value of a hexadecimal digit; -1 for any other byte.
constexpr int HexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

// ---- an escape text and two hexadecimal digits ----------------------------------------------

char *EscapeMarked(std::string_view escapeText, const EscapeTable &marked, std::string_view input,
                   size_t *outLength) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  Rewriter rewriter(input);
  for (size_t i = 0; i < input.size(); i++) {
    const auto byte = static_cast<unsigned char>(input[i]);
    if (!marked[byte]) continue;
    const char digits[] = {kDigits[byte >> 4], kDigits[byte & 0xF]};
    rewriter.Replace(i, i + 1, escapeText);
    rewriter.Append({digits, sizeof digits});
  }
  return rewriter.Finish(outLength);
}

// ---- an escape byte that makes the next byte literal ----------------------------------------

constexpr bool IsOctal(char digit) {
  return digit >= '0' && digit <= '7';
}

// Reads the C escape at `text`, a backslash.  Returns its length and stores its byte; 0 when the
// backslash stands for itself.
size_t ReadCEscape(const char *text, char *byte) {
  static constexpr char kOctal[] = "\\%03o";
  if (text[1] == '\\' || text[1] == 'n') {
    *byte = text[1] == 'n' ? '\n' : '\\';
    return 2;
  }
  // sscanf by itself would also accept blanks, a sign or fewer digits, and measures all of the text.
  if (!IsOctal(text[1]) || !IsOctal(text[2]) || !IsOctal(text[3])) return 0;
  const char digits[] = {text[0], text[1], text[2], text[3], '\0'};
  unsigned value = 0;
  if (sscanf(digits, kOctal, &value) != 1) return 0;
  *byte = static_cast<char>(value);
  return 4;
}

}  // namespace

char *Escape_DoString(const char *escapeText, const EscapeTable &bytesToEscape, const void *data,
                      size_t length, size_t *outLength) {
  return EscapeMarked(escapeText, bytesToEscape, Bytes(data, length), outLength);
}

char *Escape_Do(char escapeByte, const EscapeTable &bytesToEscape, const void *data, size_t length,
                size_t *outLength) {
  return EscapeMarked({&escapeByte, 1}, bytesToEscape, Bytes(data, length), outLength);
}

char *Escape_Undo(char escapeByte, const void *data, size_t length, size_t *outLength) {
  enum class State : uint8_t { kNormal, kAfterEscape, kAfterDigit };
  const std::string_view input = Bytes(data, length);
  Rewriter rewriter(input);
  State state = State::kNormal;
  int firstDigit = 0;
  for (size_t i = 0; i < input.size(); i++) {
    const int digit = HexValue(input[i]);
    if (state == State::kNormal) {
      if (input[i] == escapeByte) state = State::kAfterEscape;
    } else if (digit < 0) {
      state = State::kNormal;
    } else if (state == State::kAfterEscape) {
      firstDigit = digit;
      state = State::kAfterDigit;
    } else {
      const char byte = static_cast<char>(firstDigit * 16 + digit);
      rewriter.Replace(i - 2, i + 1, {&byte, 1});
      state = State::kNormal;
    }
  }
  return rewriter.Finish(outLength);
}

bool Escape_UndoFixed(char escapeByte, const void *data, size_t length, char *out, size_t outSize) {
  size_t outLength = 0;
  const HeapStr text(Escape_Undo(escapeByte, data, length, &outLength));
  if (text == nullptr) return false;
  if (outLength >= outSize) {
    errno = ERANGE;
    return false;
  }
  memcpy(out, text.get(), outLength + 1);
  return true;
}

char *Escape_AnsiToUnix(const void *data, size_t length, size_t *outLength) {
  const std::string_view input = Bytes(data, length);
  Rewriter rewriter(input);
  for (size_t at = 0; (at = input.find("\r\n", at)) != std::string_view::npos; at++) {
    rewriter.Replace(at, at + 1, "");
  }
  return rewriter.Finish(outLength);
}

char *Escape_Sh(const void *data, size_t length, size_t *outLength) {
  const std::string_view input = Bytes(data, length);
  Rewriter rewriter(input);
  rewriter.Replace(0, 0, "'");
  for (size_t at = 0; (at = input.find('\'', at)) != std::string_view::npos; at++) {
    // Ends the single-quoted part and adds a quote in double quotes; the quote of the input itself,
    // which begins the next run, opens the next single-quoted part.
    rewriter.Replace(at, at, "'\"'\"");
  }
  rewriter.Replace(input.size(), input.size(), "'");
  return rewriter.Finish(outLength);
}

const char *Escape_Strchr(char escapeByte, const char *text, char ch) {
  for (; *text != '\0'; text++) {
    if (*text == ch) return text;
    if (*text == escapeByte && *++text == '\0') break;
  }
  return nullptr;
}

char *Escape_Unescape(char escapeByte, const char *text) {
  Rewriter rewriter(text);
  const char *at = text;
  while ((at = Escape_Strchr(escapeByte, at, escapeByte)) != nullptr) {
    const auto place = static_cast<size_t>(at - text);
    rewriter.Replace(place, place + 1, "");
    at++;
    if (*at != '\0') at++;
  }
  return rewriter.Finish(nullptr);
}

char *Escape_Comma(const char *text) {
  const std::string_view input(text);
  Rewriter rewriter(input);
  for (size_t at = 0; (at = input.find_first_of(",\\", at)) != std::string_view::npos; at++) {
    rewriter.Replace(at, at, "\\");
  }
  return rewriter.Finish(nullptr);
}

void Escape_UnescapeCString(char *text) {
  char *write = text;
  while (*text != '\0') {
    char byte = *text;
    const size_t length = byte == '\\' ? ReadCEscape(text, &byte) : 0;
    *write++ = byte;
    text += length == 0 ? 1 : length;
  }
  *write = '\0';
}
