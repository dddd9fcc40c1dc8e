// bundleIdentifier_test.cpp -- bundle identifiers from property lists.  Hostile lists: fuzz/seal_fuzz.cpp.

#include <plist/plist.h>

#include "platform/codeSignature.h"
#include "platform/linux/seal/bundleIdentifier.h"
#include "tests/support/test.h"

namespace {

constexpr char kIdentifierKey[] = "CFBundleIdentifier";

// A binary list by libplist: a dictionary with this number of entries, the first one the identifier, the
// second one with the key `second`.
std::string Binary(const std::string &identifier, int entries, const std::string &second = "1") {
  const plist_t top = plist_new_dict();
  for (int i = 0; i < entries; i++) {
    const std::string key = i == 0 ? kIdentifierKey : i == 1 ? second : std::to_string(i);
    plist_dict_set_item(top, key.c_str(), plist_new_string(identifier.c_str()));
  }
  char *bytes = nullptr;
  uint32_t size = 0;
  plist_to_bin(top, &bytes, &size);
  plist_free(top);
  return std::string(HeapStr(bytes).get(), size);
}

// The list with the first occurrence of `from` replaced by `to`, which is as long.
std::string Edited(std::string list, const std::string &from, const std::string &to) {
  return list.replace(list.find(from), from.size(), to);
}

PlatformBundleIdentifier Identifier(const std::string &path) {
  const Fd item = Platform_OpenSignedItem(path.c_str());
  return Platform_BundleIdentifier(path.c_str(), item.Get());
}

TEST(BundleIdentifier, ComesFromThePropertyList) {
  const std::string head = "<?xml version=\"1.0\"?>\n<plist><dict>", end = "</dict></plist>\n";
  const std::string key = "<key>CFBundleIdentifier</key>";
  const std::string inner = "<key>A</key><dict>" + key + "<string>inner</string></dict>";
  const std::pair<std::string, std::string> kRows[] = {
      // The list, and the identifier; empty for none.
      {head + key + "<!-- c --> <string>a&amp;<![CDATA[<b>]]>\xC3\xA9</string>" + end,
       "a&<b>\xC3\xA9"},
      {head + inner + key + "<string>outer</string>" + end, "outer"},
      {head + inner + end, ""},
      {head + key + "<integer>1</integer>" + end, ""},
      {head + key + "<string></string>" + end, ""},
      {head + key + "<string>a<b/>c</string>" + end, ""},
      {head + key + "<string>x</string>" + key + "<string>y</string>" + end, ""},
      {head + key + "<string>" + std::string(1025, 'x') + "</string>" + end, ""},
      {head + key + "<string>x</string></dict>", ""},  // cut off
      {"<!DOCTYPE plist [<!ENTITY e \"x\">]><plist><dict>" + key + "<string>&e;</string>" + end,
       ""},
      {Binary("com.zephrin.k", 2), "com.zephrin.k"},
      {Binary(std::string(300, 'x'), 300), std::string(300, 'x')},  // longer sizes, wider numbers
      {Binary("\xC3\xA9", 1), ""},                                  // no ASCII
      {Binary("x", 0), ""},
      {Edited(Binary("x", 2, "CFBundleIdentifieR"), "fieR", "fier"), ""},  // twice
      {Edited(Binary("a b", 1), " ", std::string(1, '\0')), ""},
  };
  const ScratchDir dir;
  fs::create_directory(dir.Path("Contents"));
  const Fd bundle = Platform_OpenSignedItem(dir.Path().c_str());
  for (const auto &[list, identifier] : kRows) {
    const std::string file = dir.Write("Contents/Info.plist", list);
    const PlatformBundleIdentifier found = Identifier(dir.Path());
    EXPECT_EQ(identifier.empty() ? 4 : 0, found.failure) << list;
    EXPECT_EQ(nullptr, found.obstacle) << list;
    EXPECT_EQ(identifier, found.text == nullptr ? "" : found.text.get()) << list;
    EXPECT_EQ(3, Identifier(file).failure);  // no directory
    for (const int before : {0, EIO}) {
      errno = before;
      EXPECT_TRUE(BundleIdentifier_Read(bundle.Get()) != nullptr || errno == ENODATA) << list;
    }
  }
}

}  // namespace
