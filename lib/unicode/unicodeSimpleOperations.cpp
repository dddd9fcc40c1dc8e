// unicodeSimpleOperations.cpp -- strings taken apart by code points.
//
// A string is checked first; from then on its characters are found by their first bytes, all of
// which are no continuation bytes.  No character's bytes can be found within another one's, so
// searching bytes is searching characters.

#include <algorithm>
#include <cstdint>
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

// The whole string, which is fatal unless it is well-formed.
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

// Where the character with that index begins, or the end; `index` is not negative and becomes the
// index of that place.
size_t BytesBefore(std::string_view text, UnicodeIndex *index) {
  UnicodeIndex found = 0;
  size_t at = 0;
  for (; at < text.size(); at++) {
    if (BeginsCharacter(text[at]) && found++ == *index) return at;
  }
  *index = found;
  return at;
}

// A range of a text, with its bytes before and after.
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

// A new string of the pieces.
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

// Takes the first character off a text, and folds it if wanted.
uint32_t TakeCharacter(std::string_view *text, bool foldCase) {
  uint32_t codePoint = 0;
  text->remove_prefix(CodeSet_GetUtf8(text->data(), text->data() + text->size(), &codePoint));
  return foldCase ? UnicodeSimpleCaseFold(codePoint) : codePoint;
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
  while (!text1.empty() && !text2.empty()) {
    const uint32_t c1 = TakeCharacter(&text1, ignoreCase);
    const uint32_t c2 = TakeCharacter(&text2, ignoreCase);
    if (c1 != c2) return CompareCharacters(c1, c2);
  }
  return static_cast<int>(text2.empty()) - static_cast<int>(text1.empty());
}
