// seal_test.cpp -- seals: whose are believed, and what change to an item or a seal is noticed.
//
// The certificates come from tests/support/makeAuthority, signatures from codeseal or, where they are
// odd, from `openssl cms`.  What runs the check in a process of its own is tested with the whole
// program, tests/system/staging_test.cpp.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/sealCheck.h"
#include "platform/linux/sealItem.h"
#include "platform/linux/sealSignature.h"
#include "platform/linux/sealText.h"
#include "platform/linux/sealWalk.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

// The exit status of a shell command.
int Shell(const std::string &command) {
  // NOLINTNEXTLINE(cert-env33-c): made of this test's own paths
  const int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Seal : public testing::Test {
 protected:
  static inline const ScratchDir *authority;
  const ScratchDir dir;

  static void SetUpTestSuite() {
    authority = new ScratchDir;
    ASSERT_EQ(0, Shell(LUMEN_MAKE_AUTHORITY " " + authority->Path()));
  }
  static void TearDownTestSuite() { delete authority; }

  static std::string Anchors() { return ReadFile(authority->Path("root.pem")); }

  // The seal of an item with this text.
  std::string Sign(const std::string &text, const std::string &signer = "valid",
                   const std::string &options = "-nodetach") const {
    const std::string out = dir.Path("seal"), who = authority->Path(signer);
    const std::string chain = who + ".chain.pem";
    EXPECT_EQ(0, Shell("openssl cms -sign -binary -outform DER -in " + dir.Write("text", text) +
                       " -out " + out + " -signer " + who + ".pem -inkey " + who + ".key " +
                       (fs::exists(chain) ? "-certfile " + chain + " " : "") + options));
    return ReadFile(out);
  }

  static SealVerdict Open(const std::string &seal, std::string *text = nullptr) {
    SmallFileBytes bytes;
    const SealVerdict verdict = SealOpen(seal, Anchors(), &bytes);
    if (text != nullptr) *text = bytes.View();
    return verdict;
  }

  int Codeseal(const std::string &command, const std::string &path) const {
    return Shell(LUMEN_CODESEAL " " + command + " --identifier 'The name' " + path + " >" +
                 dir.Path("log") + " 2>&1");
  }

  void SealUp(const std::string &path) const {
    const std::string valid = authority->Path("valid");
    EXPECT_EQ(0, Codeseal("sign --key " + valid + ".key --cert " + valid + ".pem", path))
        << ReadFile(dir.Path("log"));
  }

  static SealVerdict Check(const std::string &path, const std::string &identifier = "The name") {
    return SealCheck(SealOpenItem(path.c_str()).Get(), identifier.c_str(), Anchors());
  }
};

// ---- the text ----------------------------------------------------------------------------------

std::string Written(const char *identifier, const std::vector<SealItem> &items) {
  size_t size = 0;
  const HeapArray<char> text = SealWrite(identifier, items, &size);
  return {text.get(), size};
}

TEST(SealText, KeepsEveryByteOfNamesAndTargets) {
  std::string odd;
  for (int c = 1; c < 256; c++) odd += static_cast<char>(c);
  SealText parsed;
  const std::string text =
      Written(odd.c_str(), {{odd.c_str(), "t%41 \n", {}}, {"a", nullptr, {{0xAB, 0x01}}}});
  ASSERT_TRUE(SealParse(text, &parsed));
  EXPECT_EQ(odd, parsed.identifier);
  EXPECT_STREQ("t%41 \n", SealFind(parsed, odd.c_str())->target);
  EXPECT_EQ((SealDigest{0xAB, 0x01}), SealFind(parsed, "a")->digest);
  EXPECT_EQ(nullptr, SealFind(parsed, "b"));
}

// That what is read has one form: fuzz/seal_fuzz.cpp.
TEST(SealText, HasOneFormOnly) {
  const std::string head = "zephrin-codeseal 1\nidentifier i\n", hex(64, '0');
  SealText parsed;
  EXPECT_TRUE(SealParse(head + "sha256 " + hex + " a\nlink t%0A b\n", &parsed));
  for (const std::string &lines :
       {std::string("\n"), std::string("link t a"), "sha256 " + hex + "0 a\n",
        std::string("link t a\nlink t a\n"), std::string("link t b\nlink t a\n"),
        std::string("link  a\n"), std::string("link t a%0a\n"), std::string("link t a%41\n"),
        std::string("link t a%00\n"), std::string("link t a\0\n", 10)}) {
    EXPECT_FALSE(SealParse(head + lines, &parsed)) << lines;
  }
  EXPECT_FALSE(SealParse("zephrin-codeseal 2\nidentifier i\n", &parsed));
}

// ---- the signature -----------------------------------------------------------------------------

TEST_F(Seal, IsOneSignatureInDerOfASignerWhoMay) {
  const std::string second = "-nodetach -signer " + authority->Path("viaAuthority.pem") +
                             " -inkey " + authority->Path("viaAuthority.key");
  const struct {
    SealVerdict verdict;
    const char *signer;
    std::string options = "-nodetach";
  } rows[] = {
      {SealVerdict::Valid, "valid"},
      {SealVerdict::Valid, "viaAuthority", "-nodetach -md sha512"},
      {SealVerdict::Untrusted, "expired"},
      {SealVerdict::Untrusted, "stranger"},
      {SealVerdict::NotForCode, "wrongUse"},
      {SealVerdict::NotForCode, "noUse"},
      {SealVerdict::NotForCode, "viaServers"},
      {SealVerdict::NotMaker, "wrongName"},
      {SealVerdict::WeakDigest, "valid", "-nodetach -md sha1"},
      {SealVerdict::NotCms, "valid", second},
      {SealVerdict::NotCms, "valid", "-nodetach -stream"},  // BER
      {SealVerdict::NotCms, "valid", ""},                   // the text is elsewhere
      {SealVerdict::NotCms, "valid", "-nodetach -econtent_type 1.2.3"},
      {SealVerdict::BadSignature, "valid", "-nodetach -nocerts"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.verdict, Open(Sign("text", row.signer, row.options)))
        << row.signer << " " << row.options;
  }
  EXPECT_EQ(SealVerdict::NotCms, Open(""));
  SmallFileBytes text;
  for (const std::string &anchors : {std::string(), Anchors().substr(0, 99)}) {
    EXPECT_EQ(SealVerdict::NoAnchors, SealOpen(Sign("text"), anchors, &text));
  }
}

TEST_F(Seal, NoChangedByteMakesItSaySomethingElse) {
  const std::string seal = Sign("text");
  EXPECT_EQ(SealVerdict::NotCms, Open(seal + '\0'));
  const size_t step = getenv("LUMEN_ROUNDS") == nullptr ? 3 : 1;
  for (size_t i = 0; i < seal.size(); i += step) {
    std::string changed = seal, text;
    changed[i] = static_cast<char>(changed[i] ^ 1 << i % 8);
    EXPECT_TRUE(Open(changed, &text) != SealVerdict::Valid || text == "text") << i;
  }
}

// ---- items -------------------------------------------------------------------------------------

TEST_F(Seal, OfAFileNoticesEachChange) {
  const std::string path = dir.Write("file", "content");
  const auto attach = [&](const std::string &seal) {
    return setxattr(path.c_str(), kSealAttribute, seal.data(), seal.size(), 0) == 0;
  };
  if (!attach("") && errno == ENOTSUP) SKIP_FOR_WANT_OF("extended attributes of users");
  EXPECT_EQ(SealVerdict::NoSeal, Check(path));
  SealUp(path);
  const std::string verify = "verify --anchors " + authority->Path("root.pem");
  EXPECT_EQ(0, Codeseal(verify, path));
  EXPECT_EQ(SealVerdict::Valid, Check(path));
  EXPECT_EQ(SealVerdict::OtherName, Check(path, "The name "));
  dir.Write("file", "Content");
  EXPECT_EQ(SealVerdict::Changed, Check(path));
  EXPECT_EQ(1, Codeseal(verify, path));
  EXPECT_TRUE(attach(Sign("zephrin-codeseal 1\n")));
  EXPECT_EQ(SealVerdict::BadText, Check(path));
  // A list of something else does not vouch for the file.
  EXPECT_TRUE(attach(Sign(Written("The name", {}))));
  EXPECT_EQ(SealVerdict::Unlisted, Check(path));
}

TEST_F(Seal, OfABundleNoticesEachChange) {
  const fs::path bundle = dir.Path("b.kext");
  // Shell commands in the folder Contents; ../.. is another place.
  const std::pair<SealVerdict, const char *> kRows[] = {
      {SealVerdict::Valid, "chmod 600 a-b; touch a-b; mkdir a/new"},
      {SealVerdict::Changed, "printf lisT >Info.plist"},
      {SealVerdict::Changed, "mv a-b x; mv Info.plist a-b; mv x Info.plist"},
      {SealVerdict::Changed, "ln -sfn a/ode link"},
      {SealVerdict::Changed, "mv a-b ../../file; ln -s ../../file a-b"},
      {SealVerdict::Unlisted, "mv a ../../folder; ln -s ../../folder a"},
      {SealVerdict::Unlisted, "touch a/new"},
      {SealVerdict::Missing, "rm a-b"},
      {SealVerdict::Unreadable, "rm a-b; mkfifo a-b"},
      {SealVerdict::Unreadable, "mkdir -p $(printf 'd/%.0s' $(seq 33))"},
      {SealVerdict::NoSeal, "mv _CodeSignature/CodeSeal x; ln -s ../x _CodeSignature/CodeSeal"},
      {SealVerdict::NoSeal, "mv _CodeSignature x; ln -s x _CodeSignature"},
      {SealVerdict::NoSeal, "rm _CodeSignature/CodeSeal; mkfifo _CodeSignature/CodeSeal"},
  };
  for (const auto &[verdict, change] : kRows) {
    fs::remove_all(bundle);
    fs::remove_all(dir.Path("folder"));
    fs::create_directories(bundle / "Contents/a/empty");
    fs::create_directory(bundle / "Contents/_CodeSignature");
    dir.Write("b.kext/Contents/_CodeSignature/CodeSeal.new", "left by an interrupted run");
    dir.Write("b.kext/Contents/Info.plist", "list");
    dir.Write("b.kext/Contents/a/odd \n%\xFF", "odd");
    dir.Write("b.kext/Contents/a-b", "");
    fs::create_symlink("a/odd", bundle / "Contents/link");
    for (int round = 0; round < 2; round++) SealUp(bundle);
    EXPECT_EQ(SealVerdict::Valid, Check(bundle));
    EXPECT_EQ(0, Shell("cd " + bundle.string() + "/Contents && " + change));
    EXPECT_EQ(verdict, Check(bundle)) << change;
  }
}

TEST_F(Seal, AnchorsAreRootsAlone) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root");
  for (const char *const change :
       {"true", "chmod 664 etc/pem", "chmod 646 etc/pem", "chown 12345 etc/pem",
        "chmod 757 etc",  // who may rename it can put another file in its place
        "chown 12345 etc", "chown 12345 .", "mv etc/pem etc/real; ln -s real etc/pem",
        "mv etc real; ln -s real etc", "rm etc/pem; mkfifo etc/pem"}) {
    const bool good = change == std::string("true");
    EXPECT_EQ(0, Shell("cd " + dir.Path() +
                       " && chown 0 . && rm -rf etc real && mkdir -m 755 etc && printf anchors "
                       ">etc/pem && chmod 644 etc/pem && " +
                       change));
    const Fd start(open(dir.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    SmallFileBytes anchors;
    EXPECT_EQ(good ? SealVerdict::Valid : SealVerdict::NoAnchors,
              SealReadAnchors(start.Get(), "etc/pem", &anchors))
        << change;
    EXPECT_EQ(good ? "anchors" : "", anchors.View()) << change;
  }
}

}  // namespace
