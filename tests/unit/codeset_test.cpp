// codeset_test.cpp -- UTF-8 against ICU, the names of encodings, the library's own converters, how ICU
// takes over, and texts for display.
//
// ICU never leaves a process that it has entered, so tests let it into a child.
// Conversions of any bytes: fuzz/codeset_fuzz.cpp; the look-up of any name: fuzz/encoding_fuzz.cpp.

#include "lib/public/codeset.h"

#include <unicode/putil.h>
#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <atomic>
#include <chrono>
#include <optional>

#include "lib/misc/codeset/codesetUtf8.h"
#include "lib/public/displayText.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/productDir.h"
#include "lib/public/unicode.h"
#include "lib/public/utf8.h"
#include "lib/unicode/encodings/encodingTable.h"
#include "tests/support/allocFault.h"
#include "tests/support/asRoot.h"
#include "tests/support/test.h"

namespace {

using std::string_literals::operator""s;

// The second opinion: a text in UTF-16; none when it is not valid.
std::optional<std::u16string> IcuUtf16(std::string_view text) {
  std::u16string units(text.size(), u'\0');
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  const auto size = static_cast<int32_t>(text.size());
  u_strFromUTF8(units.data(), size, &length, text.data(), size, &error);
  units.resize(static_cast<size_t>(length));
  return U_SUCCESS(error) ? std::optional(units) : std::nullopt;
}

std::string BytesOf(const std::u16string &units) {
  return std::string(reinterpret_cast<const char *>(units.data()), units.size() * 2);
}

// The result of a conversion; none when it fails.
std::optional<std::string> Convert(const char *from, const std::string &text, const char *to,
                                   int flags) {
  ScopedDynBuf out;
  if (CodeSet_GenericToGenericDb(from, text.data(), text.size(), to, flags, &out))
    return std::string(out.data, out.size);
  return {};
}

// Vectors are checked by pairs of bytes, and by the bytes two and three places before: four bytes meet
// all of that.  These lie across the border of two vectors, and begin with the first or last of a kind.
TEST(Utf8, ShortTextsAreTreatedAlike) {
  for (const char first :
       "\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF"
       "\xF0\xF1\xF3\xF4\xF5"s) {
    for (uint32_t i = 0; i < 1 << 17; i++) {
      const char bytes[] = {first, static_cast<char>(i), static_cast<char>(i >> 8),
                            i < 1 << 16 ? 'a' : '\x80'};
      const std::string text = std::string(14, 'a') + std::string(bytes, sizeof bytes);
      const char *const end = text.data() + text.size();
      const bool isValid = IcuUtf16(text).has_value();
      ASSERT_EQ(isValid, CodeSet_IsValidUTF8(text.data(), text.size())) << i;
      ASSERT_EQ(isValid, CodeSetUtf8DfaAccepts(text.data(), end)) << i;
      // Surrogates are decoded, too.
      uint32_t value;
      const size_t length = CodeSet_GetUtf8(end - 4, end, &value);
      char again[4];
      if (length != 0) Utf8_Encode(value, again);
      ASSERT_TRUE(length == 0 ? !isValid : memcmp(again, bytes, length) == 0) << i;
    }
  }
}

// Long enough for stretches of ASCII and for many vectors, at every alignment.
TEST(Utf8, LongTextsAreCheckedAndConvertedAlike) {
  const std::string_view pieces[] = {"plain text of more than a few words, ", "\xC3\xA9",
                                     "\xE3\x81\x84", "\xF0\x9F\x98\x80", "a"};
  std::mt19937 random(1);
  for (int round = Rounds(4000); round > 0; round--) {
    std::string text;
    const size_t mostly = random() % std::size(pieces);
    while (text.size() < 600 - mostly) {
      text += pieces[random() % 4 == 0 ? random() % std::size(pieces) : mostly];
    }
    if (round % 4 != 0) text[random() % text.size()] = static_cast<char>(random());
    auto units = IcuUtf16(text);
    ASSERT_EQ(units.has_value(), CodeSet_IsValidUTF8(text.data(), text.size())) << text;
    const auto utf16 = Convert("UTF-8", text, "UTF-16LE", CODESET_STOP);
    ASSERT_TRUE(utf16 == (units ? std::optional(BytesOf(*units)) : std::nullopt)) << text;
    if (!units) continue;
    ASSERT_TRUE(Convert("UTF-16LE", *utf16, "UTF-8", CODESET_STOP) == text);
    (*units)[random() % units->size()] = static_cast<char16_t>(0xD700 + random() % 0xA00);
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, nullptr, units->data(), static_cast<int32_t>(units->size()), &error);
    const bool isValid = error == U_BUFFER_OVERFLOW_ERROR;
    ASSERT_EQ(isValid, Convert("UTF-16LE", BytesOf(*units), "UTF-8", CODESET_STOP).has_value());
    for (char16_t &unit : *units) unit = __builtin_bswap16(unit);
    ASSERT_EQ(isValid, Convert("UTF-16BE", BytesOf(*units), "UTF-8", CODESET_STOP).has_value());
  }
  const std::string stretch(64, 'a'), cut = stretch.substr(1) + "\xC3" + stretch + "\xA9";
  EXPECT_FALSE(CodeSet_IsValidUTF8(cut.c_str())) << "ASCII in the middle of a character";
}

// Every character, in UTF-8.
std::string AllCharacters() {
  std::u32string all;
  for (char32_t c = 1; c <= 0x10FFFF; c++) {
    if (c < 0xD800 || c > 0xDFFF) all += c;
  }
  char32_t *units = nullptr;
  char *bytes = nullptr;
  EXPECT_TRUE(CodeSet_UTF32ToUTF8(all.c_str(), &bytes) && CodeSet_UTF8ToUTF32(bytes, &units));
  EXPECT_TRUE(all == HeapArray<char32_t>(units).get());
  const HeapStr owner(bytes);
  const char32_t surrogate[] = {0xDFFF, 0}, tooLarge[] = {0x110000, 0};
  EXPECT_FALSE(CodeSet_UTF32ToUTF8(surrogate, &bytes) || CodeSet_UTF32ToUTF8(tooLarge, &bytes) ||
               CodeSet_UTF8ToUTF32("a\xED\xA0\x80", &units));
  return owner.get();
}

// ---- names of encodings ----------------------------------------------------------------------

constexpr auto kUnknown = StringEncoding::Unknown;

TEST(Encodings, AreFoundByAllTheirNames) {
  for (const EncodingRow &row : EncodingTableRows()) {
    const auto encoding = StringEncoding{row.encoding}, expected = row.usable ? encoding : kUnknown;
    EXPECT_EQ(expected, Unicode_EncodingNameToEnum(Unicode_EncodingEnumToName(encoding)));
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name)) {
      EXPECT_EQ(expected, Unicode_EncodingNameToEnum(name)) << name;
    }
  }
}

TEST(Encodings, ThatNobodyKnowsAreLoggedEachTime) {
  for (int round = 0; round < 2; round++) {
    EXPECT_EQ("UnicodeIANALookup: Did not find an IANA match for encoding \"windows-1252x\"\n",
              LogOf([] { EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum("windows-1252x")); }));
  }
  // What a name means does not depend on others that were looked up.
  EXPECT_EQ(StringEncoding::Iso8859_1, Unicode_EncodingNameToEnum("windows-28591"));
  EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum("WINDOWS-28591"));
  EXPECT_EQ(
      "Unicode_EncodingEnumToName: Unknown encoding -2.\n"
      "Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n",
      FatalText([] { (void)Unicode_EncodingEnumToName(StringEncoding{-2}); }));
}

// ---- conversion ------------------------------------------------------------------------------

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
    EXPECT_EQ("ENOMEM", OkOrErrno(row.convert(row.in.data(), row.in.size(), &out, &length)));
    EXPECT_TRUE(fault.Fired() && out == nullptr && length == row.out.size());
    const AllocFault noShrinking(2);
    EXPECT_TRUE(row.convert(row.in.data(), row.in.size(), &out, &length) && noShrinking.Fired());
    EXPECT_EQ(row.out, std::string(HeapStr(out).get(), length));
  }
  const AllocFault fault(1);
  EXPECT_FALSE(CodeSet_Validate("\xD8\0\xD8\0", 4, "UTF-16BE") || fault.Fired());
  EXPECT_TRUE(CodeSet_Validate("\xE9", 1, "ISO-8859-1") && CodeSet_Validate("", 0, "UTF-16BE"));
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

char *LookUp(const char *key) {
  lookups++;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return key == "icuDir"s && !lookedUp.empty() ? strdup(lookedUp.c_str()) : nullptr;
}

TEST_F(Icu, IsLetInWhereItsDataFileIs) {
  RUN_AS_ROOT();
  const std::string odd = dir.Path("odd"),
                    usual = "/Library/Application Support/Zephrin Calder Lumen/icu";
  fs::create_directories(odd + "/icudt44l.dat");
  fs::create_directories(folder + usual);
  fs::copy(file, folder + usual);
  InChild([&] {
    ASSERT_TRUE(chroot(folder.c_str()) == 0 && CodeSet_Init(nullptr));
    EXPECT_EQ(usual + "/icudt44l.dat", u_getDataDirectory());
  });
  InChild([&] {
    ProductDir_InstallLookup(LookUp);
    EXPECT_TRUE(CodeSet_Init(nullptr) && CodeSet_Init(odd.c_str()) && !IcuIsIn());
    lookedUp = folder;
    for (std::jthread threads[4]; std::jthread & thread : threads) {
      thread = std::jthread([] { EXPECT_TRUE((Unicode_Init(nullptr), IcuIsIn())) << "at once"; });
    }
    EXPECT_TRUE(lookups == 2 && file == u_getDataDirectory());
    EXPECT_TRUE(CodeSet_Init("/nowhere") && IcuIsIn()) << "it never leaves";
  });
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
    const auto &row = rows[i];
    const bool heeds = isIcu || i < 2;
    const auto convert = [&](int with) {
      return Convert(row.from, row.in, row.to, with).value_or("none");
    };
    EXPECT_TRUE(convert(CODESET_STOP) == "none" && errno == EILSEQ) << row.in;
    EXPECT_EQ(heeds ? row.substituted : "none", convert(CODESET_SUBSTITUTE));
    EXPECT_EQ(heeds ? row.skipped : "none", convert(CODESET_SKIP));
  }
  // All converters but those with rows here or in FixedPairs.
  const std::string pair = "\xD8\x3D\xDE\0"s;
  EXPECT_TRUE(Convert("UTF-16BE", pair, "UTF-16BE", CODESET_STOP) == pair &&
              Convert("US-ASCII", "ascii", "US-ASCII", CODESET_STOP) == "ascii" &&
              !Convert("UTF-16LE", "a\0z"s, "UTF-8", CODESET_STOP));
  EXPECT_EQ("a\xC3\xA9", Convert("ISO-8859-1", "a\xE9", "UTF-8", CODESET_STOP));
  EXPECT_TRUE(Convert("no such name", "", "UTF-8", CODESET_STOP) == "" &&
              !Convert("no such name", "a", "UTF-8", CODESET_STOP) && errno == EINVAL);
}

// Compares the engine with ICU's converter itself, which has the whole text in one buffer, in both
// directions.  False for a name that ICU does not open.
bool ConvertsLikeUcnv(const char *name, const std::u16string &utf16) {
  UErrorCode error = U_ZERO_ERROR;
  const std::unique_ptr<UConverter, decltype(&ucnv_close)> converter(ucnv_open(name, &error),
                                                                     ucnv_close);
  if (converter == nullptr) return false;
  const auto size = [](const auto &text) { return static_cast<int32_t>(text.size()); };
  std::string bytes(utf16.size() * 8, '\0');
  bytes.resize(static_cast<size_t>(ucnv_fromUChars(converter.get(), bytes.data(), size(bytes),
                                                   utf16.data(), size(utf16), &error)));
  EXPECT_TRUE(Convert("UTF-16LE", BytesOf(utf16), name, CODESET_SUBSTITUTE) == bytes)
      << "to " << name;
  std::u16string back(bytes.size() * 2, u'\0');
  back.resize(static_cast<size_t>(
      ucnv_toUChars(converter.get(), back.data(), size(back), bytes.data(), size(bytes), &error)));
  EXPECT_TRUE(Convert(name, bytes, "UTF-16LE", CODESET_SUBSTITUTE) == BytesOf(back))
      << "from " << name;
  EXPECT_EQ(Convert(name, bytes, "UTF-8", CODESET_STOP).has_value(),
            CodeSet_Validate(bytes.data(), bytes.size(), name));
  return U_SUCCESS(error);
}

TEST_F(Icu, TakesOver) {
  ExpectFlagsHeeded(false);
  EXPECT_EQ("\x1A", Convert("UTF-8", "\xC3\xA9", "US-ASCII", 3)) << "a bit of the flags counts";
  const std::string all = AllCharacters();
  const std::u16string units = IcuUtf16(all).value_or(u"");
  EXPECT_TRUE(Convert("UTF-8", all, "UTF-16LE", CODESET_STOP) == BytesOf(units));
  EXPECT_TRUE(Convert("UTF-16LE", BytesOf(units), "UTF-8", CODESET_STOP) == all);
  InChild([&] {
    ASSERT_TRUE(CodeSet_Init(folder.c_str()) && IcuIsIn());
    EXPECT_TRUE(Convert("UTF-8", all, "UTF-16LE", CODESET_STOP) == BytesOf(units)) << "in pieces";
    ExpectFlagsHeeded(true);
    // Neighbours of random characters, mostly below U+10000: 63487 units.
    std::mt19937 random(5);
    std::u16string text;
    while (text.size() < 10'000) {
      text += units.substr(1 + 2 * (random() % (random() % 4 == 0 ? 1 << 20 : 31'000)), 20);
    }
    for (const EncodingRow &row : EncodingTableRows()) {
      // LMBCS may write a text in several ways; ICU decides by what is in the buffer.
      const std::string name = EncodingTablePreferredName(row);
      EXPECT_TRUE(name == "LMBCS-1" || ConvertsLikeUcnv(name.c_str(), text) || !row.usable) << name;
    }
    const std::u16string hangul(600'000, u'\uAC00');
    EXPECT_TRUE(ConvertsLikeUcnv("ISO-2022-KR", hangul)) << "pieces that begin in a shifted state";
    EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/misc/codeset:988\n",
              FatalText([] { Convert("UTF-8", "a", "UTF-8", 3); }));
    EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1723\n",
              FatalText([] { (void)CodeSet_Validate("a", 1, "no such name"); }));
  });
}

TEST(DisplayText, IsHarmlessOnATerminalAsALineAndAsJson) {
  const std::string rows[][3] = {
      {"", "", R"("")"},
      {"a\t\x1B[m\x7F\"\\", "a??[m?\"\\", R"("a\u0009\u001b[m\u007f\"\\")"},
      {"\xC2\x80\xC2\x9F\xC2\xA0\xE2\x82\xAC", "??\xC2\xA0\xE2\x82\xAC",
       "\"\\u0080\\u009f\xC2\xA0\xE2\x82\xAC\""},
      {"\xC2\x9B\xE9\n", "????", R"("\ufffd\ufffd\ufffd\u000a")"},  // not UTF-8
  };
  for (const auto &[text, line, json] : rows) {
    EXPECT_EQ(line, Owned(DisplayText_Line(text.c_str())));
    EXPECT_EQ(json, Owned(DisplayText_Json(text.c_str())));
  }
}

}  // namespace
