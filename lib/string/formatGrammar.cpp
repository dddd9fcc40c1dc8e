// formatGrammar.cpp -- stage 1 of formatting: from the text of a conversion to its parts.
//
// One table row per character says what the character means inside a conversion, so that the common
// conversions, a `%` and a letter, cost one look-up.

#include "formatGrammar.h"

#include <array>
#include <climits>
#include <cstddef>

namespace {

enum class Action : uint8_t { Convert, LongConvert, Flag, Digit, Star, Dot, Size };

struct Row {
  Action action = Action::Convert;
  FormatKind kind = FormatKind::Literal;
  uint8_t flag = 0;
};

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
    {'D', {Action::LongConvert, FormatKind::Signed}},
    {'U', {Action::LongConvert, FormatKind::Unsigned}},
    {'O', {Action::LongConvert, FormatKind::Octal}},
    {'p', {Action::Convert, FormatKind::Pointer}},
    {'c', {Action::Convert, FormatKind::Char}},
    {'s', {Action::Convert, FormatKind::String}},
    {'C', {Action::LongConvert, FormatKind::Char}},
    {'S', {Action::LongConvert, FormatKind::String}},
    {'e', {Action::Convert, FormatKind::Float}},
    {'E', {Action::Convert, FormatKind::Float}},
    {'f', {Action::Convert, FormatKind::Float}},
    {'F', {Action::Convert, FormatKind::Float}},
    {'g', {Action::Convert, FormatKind::Float}},
    {'G', {Action::Convert, FormatKind::Float}},
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
  int number = 0;
  for (; IsDigit(*at); ++at) {
    const int digit = *at - '0';
    number = number > (INT_MAX - digit) / 10 ? INT_MAX : number * 10 + digit;
  }
  *end = at;
  return number;
}

// Behind a `*`: the argument's position, if one is written there.
const char *ReadStar(const char *at, FormatConversion *conversion, FormatCount *count) {
  const char *end;
  const int position = ReadNumber(at, &end);
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
  conversion->positionText = {at, static_cast<size_t>(end - at)};
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
  for (const char *at = percent + 1;;) {
    const Row &row = RowOf(*at);
    switch (row.action) {
      case Action::LongConvert:
        if (!FormatSize_IsWide(conversion->size)) conversion->size = FormatSize::Long;
        [[fallthrough]];
      case Action::Convert:
        conversion->kind = row.kind;
        conversion->character = *at;
        if (row.kind != FormatKind::End) ++at;
        conversion->text = {percent, static_cast<size_t>(at - percent)};
        return at;
      case Action::Flag:
        conversion->flags |= row.flag;
        ++at;
        break;
      case Action::Digit:
        at = ReadDigits(at, conversion);
        break;
      case Action::Star:
        at = ReadStar(at + 1, conversion, &conversion->width);
        break;
      case Action::Dot:
        at = ReadPrecision(at + 1, conversion);
        break;
      case Action::Size:
        at = ReadSize(at, &conversion->size);
        break;
    }
  }
}
