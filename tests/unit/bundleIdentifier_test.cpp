// bundleIdentifier_test.cpp -- what a bundle calls itself, out of property lists good and bad.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/codeSignature.h"
#include "tests/support/scratchDir.h"

namespace {

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
    "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">";
constexpr char kEnd[] = "</plist>\n";

TEST(BundleIdentifier, ComesFromThePropertyList) {
  const std::string key = "<key>CFBundleIdentifier</key>";
  const struct {
    std::string list;
    const char *identifier;  // null: there is none
  } kRows[] = {
      {kHead +
           ("<dict><key>A</key><string>x</string>" + key +
            "<string>com.zephrin.k</string></dict>") +
           kEnd,
       "com.zephrin.k"},
      {kHead +
           ("<dict>" + key + "<!-- c --> <string>a&amp;<![CDATA[<b>]]>\xC3\xA9</string></dict>") +
           kEnd,
       "a&<b>\xC3\xA9"},
      {kHead +
           ("<dict><key>A</key><dict>" + key + "<string>inner</string></dict>" + key +
            "<string>outer</string></dict>") +
           kEnd,
       "outer"},
      {kHead + ("<dict><key>A</key><dict>" + key + "<string>inner</string></dict></dict>") + kEnd,
       nullptr},
      {kHead + ("<array>" + key + "<string>x</string></array>") + kEnd, nullptr},
      {kHead + ("<dict>" + key + "<integer>1</integer></dict>") + kEnd, nullptr},
      {kHead + ("<dict>" + key + "<string></string></dict>") + kEnd, nullptr},
      {kHead + ("<dict>" + key + "<string>a<b/>c</string></dict>") + kEnd, nullptr},
      {kHead + ("<dict>" + key + "<string>x</string>" + key + "<string>y</string></dict>") + kEnd,
       nullptr},
      {kHead + ("<dict>" + key + "<string>" + std::string(2000, 'x') + "</string></dict>") + kEnd,
       nullptr},
      {kHead + ("<dict>" + key + "<string>x</string></dict>"), nullptr},  // cut off
      {kHead + ("<dict>" + key + "<string>\xFF</string></dict>") + kEnd, nullptr},
      {"<!DOCTYPE plist [<!ENTITY e \"x\">]><plist><dict>" + key +
           "<string>&e;</string></dict></plist>",
       nullptr},
      {"", nullptr},
      {"bplist00", nullptr},
  };
  ScratchDir dir;
  EXPECT_EQ(4, Platform_BundleIdentifier(dir.Path().c_str()).failure);
  std::filesystem::create_directory(dir.Path("Contents"));
  for (const auto &row : kRows) {
    const std::string file = dir.Write("Contents/Info.plist", row.list);
    const PlatformBundleIdentifier found = Platform_BundleIdentifier(dir.Path().c_str());
    EXPECT_EQ(row.identifier == nullptr ? 4 : 0, found.failure) << row.list;
    EXPECT_STREQ(row.identifier, found.text.get()) << row.list;
    EXPECT_EQ(3, Platform_BundleIdentifier(file.c_str()).failure);  // no directory
  }
  EXPECT_EQ(3, Platform_BundleIdentifier(dir.Path("nothing").c_str()).failure);
}

}  // namespace
