// bundleIdentifier_test.cpp -- what a bundle calls itself, out of property lists good and bad.

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/codeSignature.h"
#include "tests/support/scratchDir.h"

namespace {

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
    "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">";
constexpr char kEnd[] = "</plist>\n";

// As the library of the format's name writes it: a dictionary with the identifier among so many
// other entries, or with none but in a dictionary further in.
std::string Binary(const std::string &identifier, int others) {
  const plist_t top = plist_new_dict();
  plist_t inner = plist_new_dict();
  plist_dict_set_item(inner, "CFBundleIdentifier", plist_new_string("inner"));
  plist_dict_set_item(top, "A", inner);
  for (int i = 0; i < others; i++) {
    plist_dict_set_item(top, ("k" + std::to_string(i)).c_str(),
                        plist_new_string(identifier.c_str()));
  }
  if (others > 0)
    plist_dict_set_item(top, "CFBundleIdentifier", plist_new_string(identifier.c_str()));
  char *bytes = nullptr;
  uint32_t size = 0;
  plist_to_bin(top, &bytes, &size);
  std::string list(bytes, size);
  free(bytes);
  plist_free(top);
  return list;
}

TEST(BundleIdentifier, ComesFromThePropertyList) {
  const std::string key = "<key>CFBundleIdentifier</key>";
  const struct {
    std::string list;
    std::optional<std::string> identifier;
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
       std::nullopt},
      {kHead + ("<array>" + key + "<string>x</string></array>") + kEnd, std::nullopt},
      {kHead + ("<dict>" + key + "<integer>1</integer></dict>") + kEnd, std::nullopt},
      {kHead + ("<dict>" + key + "<string></string></dict>") + kEnd, std::nullopt},
      {kHead + ("<dict>" + key + "<string>a<b/>c</string></dict>") + kEnd, std::nullopt},
      {kHead + ("<dict>" + key + "<string>x</string>" + key + "<string>y</string></dict>") + kEnd,
       std::nullopt},
      {kHead + ("<dict>" + key + "<string>" + std::string(2000, 'x') + "</string></dict>") + kEnd,
       std::nullopt},
      {kHead + ("<dict>" + key + "<string>x</string></dict>"), std::nullopt},  // cut off
      {kHead + ("<dict>" + key + "<string>\xFF</string></dict>") + kEnd, std::nullopt},
      {"<!DOCTYPE plist [<!ENTITY e \"x\">]><plist><dict>" + key +
           "<string>&e;</string></dict></plist>",
       std::nullopt},
      {"", std::nullopt},
      {"bplist00", std::nullopt},
      {Binary("com.zephrin.k", 1), "com.zephrin.k"},
      {Binary(std::string(300, 'x'), 300), std::string(300, 'x')},  // longer sizes, wider numbers
      {Binary("\xC3\xA9", 1), std::nullopt},                        // no ASCII
      {Binary("", 1), std::nullopt},
      {Binary("x", 0), std::nullopt},  // only in a dictionary further in
  };
  ScratchDir dir;
  EXPECT_EQ(4, Platform_BundleIdentifier(dir.Path().c_str()).failure);
  std::filesystem::create_directory(dir.Path("Contents"));
  for (const auto &row : kRows) {
    const std::string file = dir.Write("Contents/Info.plist", row.list);
    const PlatformBundleIdentifier found = Platform_BundleIdentifier(dir.Path().c_str());
    EXPECT_EQ(row.identifier ? 0 : 4, found.failure) << row.list;
    if (row.identifier) {
      EXPECT_STREQ(row.identifier->c_str(), found.text.get());
    }
    EXPECT_EQ(3, Platform_BundleIdentifier(file.c_str()).failure);  // no directory
  }
  EXPECT_EQ(3, Platform_BundleIdentifier(dir.Path("nothing").c_str()).failure);
}

}  // namespace
