// encoding_test.cpp -- the names of encodings.

#include "encoding.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lib/unicode/encodingTable.h"
#include "tests/support/capture.h"

namespace {

constexpr auto kUnknown = StringEncoding::Unknown;

std::vector<std::string> NamesOf(const EncodingRow &row) {
  std::vector<std::string> names;
  for (const char *name = EncodingTableFirstName(row); *name != '\0';
       name = EncodingTableNextName(name)) {
    names.emplace_back(name);
  }
  return names;
}

StringEncoding Expected(const EncodingRow &row) {
  return row.usable ? static_cast<StringEncoding>(row.encoding) : kUnknown;
}

// The counts are those of the sources that encodings.inc names: a slip in editing shows here.
TEST(EncodingTable, HoldsWhatItsSourcesHave) {
  size_t usable = 0, registered = 0, codePages = 0, most = 0;
  std::set<std::string> names;
  size_t numNames = 0;
  for (const EncodingRow &row : EncodingTableRows()) {
    usable += row.usable ? 1 : 0;
    registered += row.mib != -1 ? 1 : 0;
    codePages += row.codePage != kNoCodePage ? 1 : 0;
    const std::vector<std::string> own = NamesOf(row);
    most = std::max(most, own.size());
    numNames += own.size();
    names.insert(own.begin(), own.end());
  }
  EXPECT_EQ(77U, usable);
  EXPECT_EQ(258U, registered);
  EXPECT_EQ(145U, codePages);
  EXPECT_EQ(kMaxEncodingNames, most);
  EXPECT_EQ(1490U, numNames);
  EXPECT_EQ(numNames, names.size()) << "a name stands twice";
}

TEST(EncodingNames, EachLeadsToItsRow) {
  // No record: every name is found.
  EXPECT_EQ("", CaptureOutput([] {
              for (const EncodingRow &row : EncodingTableRows()) {
                for (const std::string &name : NamesOf(row)) {
                  EXPECT_EQ(Expected(row), Unicode_EncodingNameToEnum(name.c_str())) << name;
                }
              }
            }));
}

TEST(EncodingNames, LeadBackFromNumbers) {
  for (const EncodingRow &row : EncodingTableRows()) {
    const auto encoding = static_cast<StringEncoding>(row.encoding);
    const char *const name = Unicode_EncodingEnumToName(encoding);
    if (row.usable) {
      EXPECT_EQ(encoding, Unicode_EncodingNameToEnum(name)) << name;
    }
  }
  const std::pair<StringEncoding, const char *> rows[] = {
      {StringEncoding::Utf8, "UTF-8"},           {StringEncoding::Utf16Be, "UTF-16BE"},
      {StringEncoding::Utf32Le, "UTF-32LE"},     {StringEncoding::UsAscii, "ASCII"},
      {StringEncoding::Iso8859_6, "ISO-8859-6"}, {StringEncoding::Iso8859_10, "ISO-8859-10"},
      {StringEncoding::ShiftJis, "Shift_JIS"},   {StringEncoding::EucJp, "EUC-JP"},
      {StringEncoding::JisX0201, "JIS_X0201"},   {StringEncoding::Current, "UTF-8"},
  };
  for (const auto &[encoding, name] : rows) {
    EXPECT_STREQ(name, Unicode_EncodingEnumToName(encoding));
  }
  EXPECT_EQ(StringEncoding::Utf8, Unicode_GetCurrentEncoding());
}

TEST(EncodingNames, AreFoundByCodePageExactlyOrByLettersAndDigits) {
  const struct {
    const char *name;
    StringEncoding encoding;
  } rows[] = {
      {"windows-28591", StringEncoding::Iso8859_1},
      {"Windows-65001", StringEncoding::Utf8},
      {"windows-001200", StringEncoding::Utf16Le},
      {"windows-708", StringEncoding::Iso8859_6},  // ASMO-708's row
      {"latin-1", StringEncoding::Iso8859_1},
      {"LATIN1", StringEncoding::Iso8859_1},
      {"ISO 8859_1", StringEncoding::Iso8859_1},
      {"--utf//8--", StringEncoding::Utf8},
      {"windows_932", StringEncoding::ShiftJis},
      {"WINDOWS-932", StringEncoding::ShiftJis},
      {"EUC-JP", kUnknown},  // known, not usable
      {"windows-20932", kUnknown},
  };
  for (int round = 0; round < 2; round++) {  // the second time from memory
    for (const auto &row : rows) {
      EXPECT_EQ("", CaptureOutput([&] {
                  EXPECT_EQ(row.encoding, Unicode_EncodingNameToEnum(row.name)) << row.name;
                }));
    }
  }
  // This code page stands twice: the first row counts.
  EXPECT_EQ(Unicode_EncodingNameToEnum("ISO-2022-JP"), Unicode_EncodingNameToEnum("windows-50220"));
}

TEST(EncodingNames, ThatNobodyKnowsAreLoggedEachTime) {
  for (const char *const name : {"", "-", "windows-", "windows-1", "windows-4294967295",
                                 "windows-4294968548", "windows-1252x", "utf-88", "\xC3\xA9"}) {
    const std::string expected =
        std::string("UnicodeIANALookup: Did not find an IANA match for encoding \"") + name +
        "\"\n";
    for (int round = 0; round < 2; round++) {
      EXPECT_EQ(expected, WithoutStamps(CaptureOutput(
                              [name] { EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum(name)); })));
    }
  }
}

TEST(EncodingNumbers, WithoutAnEncodingAreFatal) {
  for (const int32_t number : {-2, -3, 324, INT32_MAX}) {
    EXPECT_EQ("Unicode_EncodingEnumToName: Unknown encoding " + std::to_string(number) +
                  ".\nPanic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n",
              FatalText([number] {
                static_cast<void>(Unicode_EncodingEnumToName(StringEncoding{number}));
              }));
  }
  EXPECT_TRUE(Unicode_IsEncodingValid(StringEncoding{323}));
  EXPECT_FALSE(Unicode_IsEncodingValid(StringEncoding{324}));
}

TEST(EncodingNames, AreLookedUpByManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([] {
      for (const EncodingRow &row : EncodingTableRows()) {
        const std::string name = NamesOf(row).front();
        EXPECT_EQ(Expected(row), Unicode_EncodingNameToEnum(name.c_str()));
        EXPECT_EQ(StringEncoding::Utf8, Unicode_GetCurrentEncoding());
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

}  // namespace
