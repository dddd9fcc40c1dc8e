// codeset_test.cpp -- UTF-8 against ICU, the names of encodings, the library's own converters, and how
// ICU takes over.
//
// ICU never leaves a process that it has entered, so whoever lets it in does so in a child.
// Conversions of any bytes: fuzz/codeset_fuzz.cpp; the look-up of any name: fuzz/encoding_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "lib/public/codeset.h"

#include <unicode/putil.h>
#include <unicode/ustring.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <set>

#include "lib/public/encoding.h"
#include "lib/public/productDir.h"
#include "lib/public/unicode.h"
#include "lib/public/utf8.h"
#include "lib/unicode/encodings/encodingTable.h"
#include "tests/support/allocFault.h"
#include "tests/support/test.h"

namespace {

using std::string_literals::operator""s;

// The second opinion.
bool IsValid(std::string_view text) {
  UErrorCode error = U_ZERO_ERROR;
  u_strFromUTF8(nullptr, 0, nullptr, text.data(), static_cast<int32_t>(text.size()), &error);
  return error != U_INVALID_CHAR_FOUND;
}

// The first character is decoded exactly when its value is written with these bytes.
bool DecodesTheFirst(std::string_view text) {
  uint32_t value = 0;
  const size_t length = CodeSet_GetUtf8(text.data(), text.data() + text.size(), &value);
  if (length == 0) return text.empty() || !IsValid(text);
  char bytes[4];
  return text.substr(0, length) == std::string_view(bytes, Utf8_Encode(value, bytes));
}

// All texts of up to four bytes that are the first or last ones of their kind.
TEST(Utf8, ShortTextsOfAllKindsOfBytesAreTreatedAlike) {
  constexpr std::string_view kBytes =
      "\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5";
  constexpr size_t n = kBytes.size();
  for (size_t i = 0; i < 4 * n * n * n * n; i++) {
    std::string text;
    for (size_t rest = i / 4; text.size() <= i % 4; rest /= n) text += kBytes[rest % n];
    ASSERT_EQ(IsValid(text), CodeSet_IsValidUTF8(text.data(), text.size())) << i;
    ASSERT_TRUE(DecodesTheFirst(text)) << i;
  }
  const std::string_view surrogate = "\xED\xA0\x80";
  uint32_t value;
  EXPECT_EQ(3U, CodeSet_GetUtf8(surrogate.begin(), surrogate.end(), &value))
      << "is decoded all the same";
}

// Long enough for stretches of ASCII and for several lanes of the check, at every alignment.
TEST(Utf8, LongTextsWithOneWrongByteAreTreatedAlike) {
  const std::string_view pieces[] = {"plain text of more than a few words, ", "\xC3\xA9",
                                     "\xE3\x81\x84", "\xF0\x9F\x98\x80", "a"};
  std::mt19937 random(1);
  for (int round = Rounds(4000); round > 0; round--) {
    std::string text;
    const size_t mostly = random() % std::size(pieces);
    while (text.size() < 600) {
      text += pieces[random() % 4 == 0 ? random() % std::size(pieces) : mostly];
    }
    text.erase(0, random() % 8);
    if (round % 4 != 0) text[random() % text.size()] = static_cast<char>(random());
    ASSERT_EQ(IsValid(text), CodeSet_IsValidUTF8(text.data(), text.size())) << round;
  }
}

std::u32string AllCharacters() {
  std::u32string all;
  for (char32_t c = 1; c <= 0x10FFFF; c++) {
    if (c < 0xD800 || c > 0xDFFF) all += c;
  }
  return all;
}

TEST(Utf32, EveryCharacterGoesThereAndBack) {
  const std::u32string all = AllCharacters();
  char32_t *units = nullptr;
  char *bytes = nullptr;
  ASSERT_TRUE(CodeSet_UTF32ToUTF8(all.c_str(), &bytes));
  const HeapStr bytesOwner(bytes);
  ASSERT_TRUE(CodeSet_UTF8ToUTF32(bytes, &units));
  EXPECT_TRUE(all == HeapArray<char32_t>(units).get() && IsValid(bytes));
  const char32_t surrogate[] = {0xDFFF, 0}, tooLarge[] = {0x110000, 0};
  EXPECT_FALSE(CodeSet_UTF32ToUTF8(surrogate, &bytes) || CodeSet_UTF32ToUTF8(tooLarge, &bytes));
  EXPECT_FALSE(CodeSet_UTF8ToUTF32("a\xED\xA0\x80", &units));
}

// ---- names of encodings ----------------------------------------------------------------------

constexpr auto kUnknown = StringEncoding::Unknown;

// The counts are those of the sources that encodings.inc names: a slip in editing shows here.
TEST(Encodings, HaveTheNamesOfTheirSourcesAndAreFoundByEach) {
  size_t usable = 0, count = 0;
  std::set<std::string> names;
  for (const EncodingRow &row : EncodingTableRows()) {
    usable += row.usable ? 1 : 0;
    const auto expected = row.usable ? StringEncoding{row.encoding} : kUnknown;
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name), count++) {
      EXPECT_TRUE(names.insert(name).second) << name << " stands twice";
      EXPECT_EQ(expected, Unicode_EncodingNameToEnum(name)) << name;
    }
    const char *const preferred = Unicode_EncodingEnumToName(StringEncoding{row.encoding});
    EXPECT_EQ(expected, Unicode_EncodingNameToEnum(preferred));
  }
  EXPECT_TRUE(usable == 77 && count == 1490);
}

TEST(Encodings, ThatNobodyKnowsAreLoggedEachTime) {
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ("UnicodeIANALookup: Did not find an IANA match for encoding \"windows-1252x\"\n",
              LogOf([] { EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum("windows-1252x")); }));
  }
  EXPECT_EQ(
      "Unicode_EncodingEnumToName: Unknown encoding -2.\n"
      "Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n",
      FatalText([] { (void)Unicode_EncodingEnumToName(StringEncoding{-2}); }));
}

// ---- conversion ------------------------------------------------------------------------------

// The result of a conversion; none when it fails.
std::optional<std::string> Convert(const char *from, const std::string &text, const char *to,
                                   int flags) {
  char *out = nullptr;
  size_t length = 0;
  if (!CodeSet_GenericToGeneric(from, text.data(), text.size(), to, flags, &out, &length))
    return {};
  const HeapStr owner(out);
  return std::string(out, length);
}

TEST(FixedPairs, ConvertFromAndToWhatTheirNamesSay) {
  const std::string utf8 = "a\0\xC3\xA9"s, little = "a\0\0\0\xE9\0"s, big = "\0a\0\0\0\xE9"s;
  const struct {
    decltype(&CodeSet_Utf8ToCurrent) convert;
    std::string in, out;
  } rows[] = {
      {CodeSet_Utf16leToUtf8, little, utf8},    {CodeSet_Utf16beToUtf8, big, utf8},
      {CodeSet_Utf8ToUtf16le, utf8, little},    {CodeSet_Utf16leToCurrent, little, utf8},
      {CodeSet_CurrentToUtf16le, utf8, little}, {CodeSet_CurrentToUtf8, utf8, utf8},
  };
  for (const auto &row : rows) {
    char *out = nullptr;
    size_t length = 1;
    ASSERT_TRUE(row.convert(row.in.data(), row.in.size(), &out, &length));
    const HeapStr owner(std::exchange(out, nullptr));
    EXPECT_EQ(row.out + std::string(4, '\0'), std::string(owner.get(), length + 4)) << "any unit";
    const AllocFault fault(1);
    EXPECT_FALSE(row.convert(row.in.data(), row.in.size(), &out, &length));
    EXPECT_TRUE(fault.Fired() && out == nullptr && length == row.out.size());
  }
  EXPECT_FALSE(CodeSet_Validate("\xD8\0\xD8\0", 4, "UTF-16BE"));
  EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1700\n",
            FatalText([] { (void)CodeSet_Validate("", size_t{1} << 31, "UTF-8"); }));
}

// ---- ICU -------------------------------------------------------------------------------------

// With a text that becomes longer than the room that is tried first.
bool IcuIsIn() {
  const auto utf8 = Convert("ISO-8859-2", std::string(999, '\xE9'), "UTF-8", CODESET_STOP);
  return utf8.value_or("").ends_with("\xC3\xA9") && utf8->size() == size_t{2} * 999;
}

// A folder with ICU's data file.  What is in it does not matter: this host's ICU has its data in a
// library of its own, and never opens the file.
struct Icu : testing::Test {
  const ScratchDir dir;
  const std::string folder = dir.Path(), file = dir.Write("icudt44l.dat", "data");
};

std::string lookedUp;
std::atomic<int> lookups;

TEST_F(Icu, IsLetInOnceByManyThreadsWhereItsDataFileIs) {
  const std::string odd = dir.Path("odd");
  fs::create_directories(odd + "/icudt44l.dat");
  const struct {
    const char *given;
    std::string found;
    bool comesIn;
  } rows[] = {{folder.c_str(), "/nowhere", true},
              {"/nowhere", folder, false},
              {nullptr, folder, true},
              {odd.c_str(), "/nowhere", false}};
  for (const auto &[given, found, comesIn] : rows) {
    InChild([&, given = given, found = found, comesIn = comesIn] {
      lookedUp = found;
      ProductDir_InstallLookup([](const char *key) {
        lookups++;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return key == std::string("icuDir") ? strdup(lookedUp.c_str()) : nullptr;
      });
      for (std::jthread threads[4]; std::jthread & thread : threads) {
        thread = std::jthread([&] {
          Unicode_Init(given);
          EXPECT_EQ(comesIn, IcuIsIn()) << "nobody comes back too early";
        });
      }
      EXPECT_EQ(given == nullptr ? 1 : 0, lookups);
      EXPECT_EQ(comesIn, file == u_getDataDirectory());
      EXPECT_TRUE(CodeSet_Init("/nowhere") && comesIn == IcuIsIn()) << "it never leaves";
    });
  }
}

// With ICU, and without it but in ASCII only.
void ExpectFlagsHeeded(bool isIcu) {
  const struct {
    const char *from, *to;
    std::string in, substituted, skipped;
  } rows[] = {
      {"UTF-8", "US-ASCII", "\xC3\xA9-\xF0\x9F\x98\x80-\x81", "\x1A-\x1A-\x1A", "--"},
      {"US-ASCII", "UTF-8", "a\x80z", "a\xEF\xBF\xBDz", "az"},
      {"UTF-8", "UTF-8", "a\x80z", "a\xEF\xBF\xBDz", "az"},
      {"UTF-16LE", "UTF-8", "a\0\0\xD8z\0"s, "a\xEF\xBF\xBDz", "az"},
  };
  for (size_t i = 0; i < std::size(rows); i++) {
    const auto &[from, to, in, substituted, skipped] = rows[i];
    const bool heeds = isIcu || i < 2;
    EXPECT_EQ(std::nullopt, Convert(from, in, to, CODESET_STOP)) << from << " to " << to;
    EXPECT_EQ(heeds ? std::optional(substituted) : std::nullopt,
              Convert(from, in, to, CODESET_SUBSTITUTE));
    EXPECT_EQ(heeds ? std::optional(skipped) : std::nullopt, Convert(from, in, to, CODESET_SKIP));
  }
  // All converters but those with rows here or in FixedPairs.
  const std::string pair = "\xD8\x3D\xDE\0"s;
  EXPECT_EQ(pair, Convert("UTF-16BE", pair, "UTF-16BE", CODESET_STOP));
  EXPECT_EQ("ascii", Convert("US-ASCII", "ascii", "US-ASCII", CODESET_STOP));
  EXPECT_EQ("a\xC3\xA9", Convert("ISO-8859-1", "a\xE9", "UTF-8", CODESET_STOP));
  EXPECT_FALSE(Convert("no such name", "a", "UTF-8", CODESET_STOP).has_value());
  EXPECT_EQ("", Convert("no such name", "", "UTF-8", CODESET_STOP));
}

TEST_F(Icu, TakesOver) {
  ExpectFlagsHeeded(false);
  char *all = nullptr;
  ASSERT_TRUE(CodeSet_UTF32ToUTF8(AllCharacters().c_str(), &all));
  const HeapStr owner(all);
  const std::string utf16 = Convert("UTF-8", all, "UTF-16LE", CODESET_STOP).value_or("");
  EXPECT_TRUE(Convert("UTF-16LE", utf16, "UTF-8", CODESET_STOP) == all);
  InChild([&] {
    ASSERT_TRUE(CodeSet_Init(folder.c_str()) && IcuIsIn());
    EXPECT_TRUE(Convert("UTF-8", all, "UTF-16LE", CODESET_STOP) == utf16);
    ExpectFlagsHeeded(true);
    for (const EncodingRow &row : EncodingTableRows()) {
      if (!row.usable) continue;
      const char *const name = EncodingTablePreferredName(row);
      const std::string bytes = Convert("UTF-8", "Az 09", name, CODESET_STOP).value_or("");
      EXPECT_EQ("Az 09", Convert(name, bytes, "UTF-8", CODESET_STOP)) << name;
      EXPECT_TRUE(CodeSet_Validate(bytes.data(), bytes.size(), name)) << name;
    }
    EXPECT_FALSE(CodeSet_Validate("\x82", 1, "Shift_JIS"));
    EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/misc/codeset:988\n",
              FatalText([] { Convert("UTF-8", "a", "UTF-8", 3); }));
    EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1723\n",
              FatalText([] { (void)CodeSet_Validate("a", 1, "no such name"); }));
  });
}

}  // namespace
