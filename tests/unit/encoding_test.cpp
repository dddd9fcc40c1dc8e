// encoding_test.cpp -- the names of encodings.

#include "encoding.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>

#include "lib/unicode/encodingTable.h"
#include "tests/support/capture.h"

namespace {

constexpr auto kUnknown = StringEncoding::Unknown;

// The counts are those of the sources that encodings.inc names: a slip in editing shows here.
TEST(Encodings, HaveTheNamesOfTheirSourcesAndAreFoundByEach) {
  size_t usable = 0, registered = 0, codePages = 0;
  std::multiset<std::string> names;
  const std::string records = CaptureOutput([&] {
    for (const EncodingRow &row : EncodingTableRows()) {
      usable += row.usable ? 1 : 0;
      registered += row.mib != -1 ? 1 : 0;
      codePages += row.codePage != kNoCodePage ? 1 : 0;
      const auto encoding = StringEncoding{row.encoding};
      for (const char *name = EncodingTableFirstName(row); *name != '\0';
           name = EncodingTableNextName(name)) {
        names.insert(name);
        EXPECT_EQ(row.usable ? encoding : kUnknown, Unicode_EncodingNameToEnum(name)) << name;
      }
      const char *const preferred = Unicode_EncodingEnumToName(encoding);
      EXPECT_EQ(row.usable ? encoding : kUnknown, Unicode_EncodingNameToEnum(preferred));
    }
  });
  EXPECT_EQ("", records) << "a name was not found";
  EXPECT_EQ(77U, usable);
  EXPECT_EQ(258U, registered);
  EXPECT_EQ(145U, codePages);
  EXPECT_EQ(1490U, names.size());
  EXPECT_EQ(1490U, std::set(names.begin(), names.end()).size()) << "a name stands twice";
}

// Only what is remembered knows it in capitals: the rule for code pages does not.
// (The zero keeps the name from what other tests ask for.)
TEST(Encodings, OnceFoundAreRememberedWhateverTheirCase) {
  EXPECT_EQ(42, RunInChild([] {
                  if (Unicode_EncodingNameToEnum("WINDOWS-028592") != kUnknown) _exit(1);
                  if (Unicode_EncodingNameToEnum("windows-028592") == kUnknown) _exit(2);
                  if (Unicode_EncodingNameToEnum("WINDOWS-028592") == kUnknown) _exit(3);
                }).exitStatus);
}

// The rules of the look-up for any name: fuzz/encoding_fuzz.cpp.
TEST(Encodings, ThatNobodyKnowsAreLoggedEachTime) {
  for (const std::string name :
       {"", "windows-1", "windows-4294968548", "windows-1252x", "utf-88"}) {
    const std::string record =
        "UnicodeIANALookup: Did not find an IANA match for encoding \"" + name + "\"\n";
    EXPECT_EQ(record + record, WithoutStamps(CaptureOutput([&] {
                EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum(name.c_str()));
                EXPECT_EQ(kUnknown, Unicode_EncodingNameToEnum(name.c_str()));
              })));
  }
}

TEST(Encodings, HaveNumbersWithinBoundsAndPreferredNames) {
  EXPECT_STREQ("ASCII", Unicode_EncodingEnumToName(StringEncoding::UsAscii));
  EXPECT_STREQ("UTF-8", Unicode_EncodingEnumToName(StringEncoding::Current));
  EXPECT_STREQ("ISO-8859-6", Unicode_EncodingEnumToName(StringEncoding::Iso8859_6));
  EXPECT_TRUE(Unicode_IsEncodingValid(StringEncoding{323}));
  EXPECT_FALSE(Unicode_IsEncodingValid(StringEncoding{324}));
  for (const int32_t number : {-2, 324}) {
    EXPECT_EQ("Unicode_EncodingEnumToName: Unknown encoding " + std::to_string(number) +
                  ".\nPanic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n",
              FatalText([number] {
                static_cast<void>(Unicode_EncodingEnumToName(StringEncoding{number}));
              }));
  }
}

}  // namespace
