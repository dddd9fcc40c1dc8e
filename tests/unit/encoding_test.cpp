// encoding_test.cpp -- the names of encodings.  The look-up of any name: fuzz/encoding_fuzz.cpp.

#include "encoding.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "lib/unicode/encodingTable.h"
#include "tests/support/capture.h"

namespace {

constexpr auto kUnknown = StringEncoding::Unknown;

// The counts are those of the sources that encodings.inc names: a slip in editing shows here.
TEST(Encodings, HaveTheNamesOfTheirSourcesAndAreFoundByEach) {
  size_t usable = 0, registered = 0, codePages = 0, count = 0;
  std::set<std::string> names;
  for (const EncodingRow &row : EncodingTableRows()) {
    usable += row.usable ? 1 : 0;
    registered += row.mib != -1 ? 1 : 0;
    codePages += row.codePage != kNoCodePage ? 1 : 0;
    const auto expected = row.usable ? StringEncoding{row.encoding} : kUnknown;
    for (const char *name = EncodingTableFirstName(row); *name != '\0';
         name = EncodingTableNextName(name), count++) {
      EXPECT_TRUE(names.insert(name).second) << name << " stands twice";
      EXPECT_EQ(expected, Unicode_EncodingNameToEnum(name)) << name;
    }
    const char *const preferred = Unicode_EncodingEnumToName(StringEncoding{row.encoding});
    EXPECT_EQ(expected, Unicode_EncodingNameToEnum(preferred));
  }
  EXPECT_TRUE(usable == 77 && registered == 258 && codePages == 145 && count == 1490);
}

TEST(Encodings, ThatNobodyKnowsAreLoggedEachTimeAndOthersRemembered) {
  for (const std::string name : {"", "windows-1", "windows-1252x", "utf-88"}) {
    EXPECT_EQ("UnicodeIANALookup: Did not find an IANA match for encoding \"" + name + "\"\n",
              WithoutStamps(CaptureOutput(
                  [&] { EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum(name.c_str())); })));
  }
  // Only what is remembered knows it in capitals: the rule for code pages does not.
  // (The zero keeps the name from what other tests ask for.)
  EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum("WINDOWS-028592"));
  EXPECT_NE(kUnknown, Unicode_EncodingNameToEnum("windows-028592"));
  EXPECT_NE(kUnknown, Unicode_EncodingNameToEnum("WINDOWS-028592"));
  EXPECT_TRUE(Unicode_IsEncodingValid(StringEncoding{323}) &&
              !Unicode_IsEncodingValid(StringEncoding{324}));
  EXPECT_EQ(
      "Unicode_EncodingEnumToName: Unknown encoding -2.\n"
      "Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n",
      FatalText([] { static_cast<void>(Unicode_EncodingEnumToName(StringEncoding{-2})); }));
}

}  // namespace
