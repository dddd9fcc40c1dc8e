// unicodeSimpleOperations.cpp -- parts of strings, by code points.
//
// A string is checked first.  After that, each byte that is no continuation byte begins a character.
// The bytes of a character never occur within another character or across two, so a search for bytes
// finds characters.
// Tests: tests/unit/unicode_test.cpp.  Speed: bench/codeset_bench.cpp

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "lib/public/codeset.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/unicode.h"
#include "lib/unicode/unicodeCaseFold.h"

namespace {

constexpr char kSubstr[] = "Unicode_Substr";
constexpr char kFind[] = "Unicode_FindSubstrInRange";

// The whole string; fatal if it is not well-formed.
std::string_view Checked(const char *string, const char *operation) {
  const std::string_view text(string);
  if (!CodeSet_IsValidUTF8(text.data(), text.size())) {
    Panic("%s: invalid UTF8 string @ %p\n", operation, static_cast<const void *>(string));
  }
  return text;
}

bool BeginsCharacter(char byte) {
  return (byte & 0xC0) != 0x80;
}

UnicodeIndex CountCharacters(std::string_view text) {
  return std::ranges::count_if(text, BeginsCharacter);
}

// ---- ranges ----------------------------------------------------------------------------------

// The offset at which the character with the index *index (not negative) begins.  When the text has
// fewer characters, the offset of its end, and *index becomes their number.
size_t BytesBefore(std::string_view text, UnicodeIndex *index) {
  UnicodeIndex found = 0;
  size_t at = 0;
  for (; at < text.size(); at++) {
    if (BeginsCharacter(text[at]) && found++ == *index) return at;
  }
  *index = found;
  return at;
}

// A range of a text, with the text before and after it.
struct Range {
  std::string_view before, bytes, after;
  UnicodeIndex start;
};

Range RangeOf(std::string_view text, UnicodeIndex start, UnicodeIndex length) {
  start = std::max<UnicodeIndex>(start, 0);
  const size_t begin = BytesBefore(text, &start);
  const std::string_view rest = text.substr(begin);
  const size_t size = length < 0 ? rest.size() : BytesBefore(rest, &length);
  return {text.substr(0, begin), rest.substr(0, size), rest.substr(size), start};
}

// A new string: the pieces, concatenated.
char *Concatenate(std::initializer_list<std::string_view> pieces) {
  size_t size = 1;
  for (const std::string_view piece : pieces) size += piece.size();
  const auto string = static_cast<char *>(Heap_SafeMalloc(size));
  char *end = string;
  for (const std::string_view piece : pieces) end = std::ranges::copy(piece, end).out;
  *end = '\0';
  return string;
}

// ---- comparison ------------------------------------------------------------------------------

constexpr uint32_t kFirstSupplementary = 0x10000;

// The first UTF-16 code unit of a character.
uint32_t FirstUnit(uint32_t codePoint) {
  return codePoint < kFirstSupplementary ? codePoint
                                         : 0xD800 + ((codePoint - kFirstSupplementary) >> 10);
}

// The order of two characters that differ.
int CompareCharacters(uint32_t a, uint32_t b) {
  uint32_t first = FirstUnit(a);
  uint32_t second = FirstUnit(b);
  if (a >= kFirstSupplementary && b >= kFirstSupplementary) {
    first = a;
    second = b;
  }
  if (first == second) Fatal_NotReached("lib/unicode/unicodeSimpleOperations", 208);
  return first < second ? -1 : 1;
}

// Takes the first character off a text.
uint32_t TakeCharacter(std::string_view *text) {
  auto codePoint = static_cast<uint32_t>(static_cast<uint8_t>(text->front()));
  size_t length = 1;
  if (codePoint >= 0x80) {
    length = CodeSet_GetUtf8(text->data(), text->data() + text->size(), &codePoint);
  }
  text->remove_prefix(length);
  return codePoint;
}

// How many bytes at the beginning of both texts are the same.
size_t CommonBytes(std::string_view a, std::string_view b) {
  const size_t limit = std::min(a.size(), b.size());
  size_t at = 0;
  for (uint64_t wordA, wordB; limit - at >= sizeof wordA; at += sizeof wordA) {
    memcpy(&wordA, a.data() + at, sizeof wordA);
    memcpy(&wordB, b.data() + at, sizeof wordB);
    if (wordA != wordB) break;
  }
  while (at < limit && a[at] == b[at]) at++;
  return at;
}

// Takes the characters that two texts have in common off their beginnings.
void SkipCommon(std::string_view *a, std::string_view *b) {
  size_t at = CommonBytes(*a, *b);
  // The characters that differ may begin with the same bytes.  They begin at the same offset, because
  // the bytes before are the same in both texts.
  if (at < a->size() && at < b->size()) {
    while (!BeginsCharacter((*a)[at])) at--;
  }
  a->remove_prefix(at);
  b->remove_prefix(at);
}

}  // namespace

UnicodeIndex Unicode_LengthInCodePoints(const char *string) {
  return CountCharacters(Checked(string, kSubstr));
}

char *Unicode_Substr(const char *string, UnicodeIndex start, UnicodeIndex length) {
  return Concatenate({RangeOf(Checked(string, kSubstr), start, length).bytes});
}

UnicodeIndex Unicode_FindSubstrInRange(const char *string, UnicodeIndex start, UnicodeIndex length,
                                       const char *needle, UnicodeIndex needleStart,
                                       UnicodeIndex needleLength) {
  const Range range = RangeOf(Checked(string, kFind), start, length);
  const Range sought = RangeOf(Checked(needle, kFind), needleStart, needleLength);
  const size_t at = range.bytes.find(sought.bytes);
  if (at == std::string_view::npos) return -1;
  return range.start + CountCharacters(range.bytes.substr(0, at));
}

UnicodeIndex Unicode_FindLastSubstrInRange(const char *string, UnicodeIndex start,
                                           UnicodeIndex length, const char *needle,
                                           UnicodeIndex needleStart, UnicodeIndex needleLength) {
  const Range range = RangeOf(Checked(string, kFind), start, length);
  const Range sought = RangeOf(Checked(needle, kFind), needleStart, needleLength);
  if (sought.bytes.empty()) return range.start;
  const size_t at = range.bytes.rfind(sought.bytes);
  if (at == std::string_view::npos) return -1;
  return range.start + CountCharacters(range.bytes.substr(0, at));
}

char *Unicode_ReplaceRange(const char *dest, UnicodeIndex start, UnicodeIndex length,
                           const char *source, UnicodeIndex sourceStart,
                           UnicodeIndex sourceLength) {
  const Range replaced = RangeOf(Checked(dest, kSubstr), start, length);
  const Range by = RangeOf(Checked(source, kSubstr), sourceStart, sourceLength);
  return Concatenate({replaced.before, by.bytes, replaced.after});
}

int Unicode_CompareRange(const char *string1, UnicodeIndex start1, UnicodeIndex length1,
                         const char *string2, UnicodeIndex start2, UnicodeIndex length2,
                         bool ignoreCase) {
  std::string_view text1 = RangeOf(Checked(string1, kSubstr), start1, length1).bytes;
  std::string_view text2 = RangeOf(Checked(string2, kSubstr), start2, length2).bytes;
  for (;;) {
    SkipCommon(&text1, &text2);
    if (text1.empty() || text2.empty()) break;
    uint32_t c1 = TakeCharacter(&text1);
    uint32_t c2 = TakeCharacter(&text2);
    if (ignoreCase) {
      c1 = UnicodeSimpleCaseFold(c1);
      c2 = UnicodeSimpleCaseFold(c2);
    }
    if (c1 != c2) return CompareCharacters(c1, c2);
  }
  return static_cast<int>(text2.empty()) - static_cast<int>(text1.empty());
}
