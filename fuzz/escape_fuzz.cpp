// escape_fuzz.cpp -- escaping and its ways back against each other and against plain readings of their
// rules.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/public/escape.h"
#include "lib/public/heap.h"

namespace {

void Require(bool holds, const char *rule) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", rule);
  abort();
}

std::string Take(char *result, size_t length) {
  const HeapStr owner(result);
  Require(result != nullptr && result[length] == '\0', "a result and its length");
  return std::string(result, length);
}

std::string Undo(char escapeByte, const std::string &text) {
  size_t length = 0;
  char *const result = Escape_Undo(escapeByte, text.data(), text.size(), &length);
  return Take(result, length);
}

bool IsHex(const std::string &text, size_t at) {
  return at < text.size() && static_cast<unsigned char>(text[at]) < 0x80 && isxdigit(text[at]) != 0;
}

// Token by token: an escape byte takes the next byte with it, and if that is a digit, the one after.
std::string PlainUndo(char escapeByte, const std::string &text) {
  std::string undone;
  for (size_t at = 0; at < text.size();) {
    size_t length = 1;
    if (text[at] == escapeByte) length = IsHex(text, at + 1) ? 3 : 2;
    const std::string token = text.substr(at, length);
    if (length == 3 && IsHex(text, at + 2)) {
      undone += static_cast<char>(strtoul(token.substr(1).c_str(), nullptr, 16));
    } else {
      undone += token;
    }
    at += length;
  }
  return undone;
}

void TryUndo(char escapeByte, const std::string &text, size_t room) {
  const std::string undone = Undo(escapeByte, text);
  Require(undone == PlainUndo(escapeByte, text), "undoing as its rule says");
  std::string out(room, '#');  // AddressSanitizer watches its end
  const bool fits = Escape_UndoFixed(escapeByte, text.data(), text.size(),
                                     room == 0 ? nullptr : out.data(), room);
  Require(fits == (undone.size() < room), "fitting");
  const std::string rest(fits ? room - undone.size() - 1 : room, '#');
  Require(out == (fits ? undone + '\0' + rest : rest), "a buffer that is filled or untouched");
}

void TryInverse(char escapeByte, const std::string &marked, const std::string &text) {
  EscapeTable table = Escape_Table(marked);
  table[static_cast<unsigned char>(escapeByte)] = true;
  size_t length = 0;
  char *const result = Escape_Do(escapeByte, table, text.data(), text.size(), &length);
  const std::string escaped = Take(result, length);
  Require(Undo(escapeByte, escaped) == text, "undoing is the inverse of escaping");
}

// In single quotes all is literal but the quote itself, which stands between double ones.
void TryShell(const std::string &text) {
  std::string expected = "'";
  for (const char byte : text) expected += byte == '\'' ? "'\"'\"'" : std::string(1, byte);
  size_t length = 0;
  char *const result = Escape_Sh(text.data(), text.size(), &length);
  Require(Take(result, length) == expected + "'", "the shell reads the text back");
}

void TryStrings(char escapeByte, const std::string &text) {
  char *const commas = Escape_Comma(text.c_str());
  const std::string escaped = Take(commas, commas == nullptr ? 0 : strlen(commas));
  Require(Escape_Strchr('\\', escaped.c_str(), ',') == nullptr, "no comma is left bare");
  char *const unescaped = Escape_Unescape('\\', escaped.c_str());
  Require(Take(unescaped, strlen(text.c_str())) == text.c_str(), "commas have a way back");
  HeapStr(Escape_Unescape(escapeByte, text.c_str())).reset();
  const HeapStr inPlace = Heap_SafeStrdup(text.c_str());
  Escape_UnescapeCString(inPlace.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  const char escapeByte = data.ConsumeBool() ? '%' : data.ConsumeIntegral<char>();
  const size_t room = data.ConsumeIntegralInRange<size_t>(0, 64);
  const std::string marked = data.ConsumeRandomLengthString(16);
  const std::string text = data.ConsumeRemainingBytesAsString();
  TryUndo(escapeByte, text, room);
  TryInverse(escapeByte, marked, text);
  TryShell(text);
  TryStrings(escapeByte, text);
  return 0;
}
