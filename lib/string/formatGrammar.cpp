// formatGrammar.cpp -- stage 1 of formatting: from the text of a conversion to its parts.
//
// A table says for each character what it means inside a conversion, so that the common conversions,
// a `%` and a letter, cost one look-up.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include "lib/public/formatGrammar.h"

#include <array>
#include <climits>
#include <string_view>

namespace {

enum class Action : uint8_t { Convert, Flag, Digit, Star, Dot, Size };

struct Row {
  Action action = Action::Convert;
  FormatKind kind = FormatKind::Literal;
  uint8_t flag = 0;  // a FormatFlag; or kLong for a conversion with `l` built in
};

constexpr uint8_t kLong = 1;

struct NamedRow {
  char character;
  Row row;
};

constexpr NamedRow kNamedRows[] = {
    {'\0', {Action::Convert, FormatKind::End}},
    {'#', {Action::Flag, {}, kFormatAlternate}},
    {'-', {Action::Flag, {}, kFormatLeft}},
    {'0', {Action::Flag, {}, kFormatZero}},
    {'+', {Action::Flag, {}, kFormatPlus}},
    {' ', {Action::Flag, {}, kFormatBlank}},
    {'\'', {Action::Flag, {}, kFormatGrouping}},
    {'1', {Action::Digit}},
    {'2', {Action::Digit}},
    {'3', {Action::Digit}},
    {'4', {Action::Digit}},
    {'5', {Action::Digit}},
    {'6', {Action::Digit}},
    {'7', {Action::Digit}},
    {'8', {Action::Digit}},
    {'9', {Action::Digit}},
    {'*', {Action::Star}},
    {'.', {Action::Dot}},
    {'h', {Action::Size}},
    {'l', {Action::Size}},
    {'q', {Action::Size}},
    {'L', {Action::Size}},
    {'j', {Action::Size}},
    {'t', {Action::Size}},
    {'z', {Action::Size}},
    {'Z', {Action::Size}},
    {'I', {Action::Size}},
    {'d', {Action::Convert, FormatKind::Signed}},
    {'i', {Action::Convert, FormatKind::Signed}},
    {'u', {Action::Convert, FormatKind::Unsigned}},
    {'o', {Action::Convert, FormatKind::Octal}},
    {'x', {Action::Convert, FormatKind::Hex}},
    {'X', {Action::Convert, FormatKind::Hex}},
    {'D', {Action::Convert, FormatKind::Signed, kLong}},
    {'U', {Action::Convert, FormatKind::Unsigned, kLong}},
    {'O', {Action::Convert, FormatKind::Octal, kLong}},
    {'p', {Action::Convert, FormatKind::Pointer}},
    {'c', {Action::Convert, FormatKind::Char}},
    {'s', {Action::Convert, FormatKind::String}},
    {'C', {Action::Convert, FormatKind::Char, kLong}},
    {'S', {Action::Convert, FormatKind::String, kLong}},
    {'e', {Action::Convert, FormatKind::Float}},
    {'E', {Action::Convert, FormatKind::Float}},
    {'f', {Action::Convert, FormatKind::Float}},
    {'F', {Action::Convert, FormatKind::Float}},
    {'g', {Action::Convert, FormatKind::Float}},
    {'G', {Action::Convert, FormatKind::Float}},
    {'a', {Action::Convert, FormatKind::HexFloat}},
    {'A', {Action::Convert, FormatKind::HexFloat}},
    {'n', {Action::Convert, FormatKind::Count}},
};

constexpr auto kRows = [] {
  std::array<Row, UCHAR_MAX + 1> rows{};
  for (const NamedRow &named : kNamedRows) {
    rows[static_cast<unsigned char>(named.character)] = named.row;
  }
  return rows;
}();

const Row &RowOf(char c) {
  return kRows[static_cast<unsigned char>(c)];
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// The number at `at`, 0 if there is none; `*end` is set behind it.
int ReadNumber(const char *at, const char **end) {
  int64_t number = 0;
  for (; IsDigit(*at); ++at) {
    number = number * 10 + (*at - '0');
    if (number > INT_MAX) number = INT_MAX;
  }
  *end = at;
  return static_cast<int>(number);
}

// Behind a `*`: the argument's position, if one is written there.
const char *ReadStar(const char *at, FormatConversion *conversion, FormatCount *count) {
  const char *end;
  const int position = ReadNumber(at, &end);
  conversion->flags |= kFormatStar;
  if (position == 0 || *end != '$') {
    *count = {FormatCount::Argument, 0};
    return at;
  }
  *count = {FormatCount::Argument, position};
  conversion->flags |= kFormatPositions;
  return end + 1;
}

// Digits at `at`: a position if a `$` follows, else a width.
const char *ReadDigits(const char *at, FormatConversion *conversion) {
  const char *end;
  const int number = ReadNumber(at, &end);
  if (*end != '$') {
    conversion->width = {FormatCount::Literal, number};
    return end;
  }
  conversion->position = number;
  conversion->positionDigits = at;
  conversion->flags |= kFormatPositions;
  return end + 1;
}

// Behind a `.`.
const char *ReadPrecision(const char *at, FormatConversion *conversion) {
  if (*at == '*') return ReadStar(at + 1, conversion, &conversion->precision);
  conversion->precision = {FormatCount::Literal, ReadNumber(at, &at)};
  return at;
}

// A size modifier at `at`; `h` and `l` double up with the one before.
const char *ReadSize(const char *at, FormatSize *size) {
  switch (*at) {
    case 'h':
      *size = *size == FormatSize::Short ? FormatSize::Char : FormatSize::Short;
      return at + 1;
    case 'l':
      *size = *size == FormatSize::Long ? FormatSize::LongLong : FormatSize::Long;
      return at + 1;
    case 'q':
    case 'L':
      *size = FormatSize::LongLong;
      return at + 1;
    case 'j':
      *size = FormatSize::IntMax;
      return at + 1;
    case 't':
      *size = FormatSize::PtrDiff;
      return at + 1;
    default:  // z Z I I32 I64
      break;
  }
  const std::string_view digits = at[1] == '\0' ? std::string_view() : std::string_view(at + 1, 2);
  if (*at == 'I' && (digits == "64" || digits == "32")) {
    *size = digits == "64" ? FormatSize::LongLong : FormatSize::Int;
    return at + 3;
  }
  *size = FormatSize::Size;
  return at + 1;
}

}  // namespace

const char *FormatGrammar_Parse(const char *percent, FormatConversion *conversion) {
  *conversion = {};
  const char *at = percent + 1;
  const Row *row;
  // A chain of tests: a switch would be an indirect jump for every character.
  while ((row = &RowOf(*at))->action != Action::Convert) {
    if (row->action == Action::Flag) {
      conversion->flags |= row->flag;
      ++at;
    } else if (row->action == Action::Digit) {
      at = ReadDigits(at, conversion);
    } else if (row->action == Action::Size) {
      at = ReadSize(at, &conversion->size);
    } else if (row->action == Action::Dot) {
      at = ReadPrecision(at + 1, conversion);
    } else {
      at = ReadStar(at + 1, conversion, &conversion->width);
    }
  }
  conversion->kind = row->kind;
  conversion->character = *at;
  if (row->flag == kLong && !FormatSize_IsWide(conversion->size))
    conversion->size = FormatSize::Long;
  return row->kind == FormatKind::End ? at : at + 1;
}
