// seal_test.cpp -- seals: whose are believed, and what change to an item or a seal is noticed.
//
// The certificates come from tests/support/makeAuthority, the odd signatures from `openssl cms`.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/codeSignature.h"
#include "platform/linux/sealCheck.h"
#include "platform/linux/sealItem.h"
#include "platform/linux/sealSignature.h"
#include "platform/linux/sealText.h"
#include "platform/linux/sealWalk.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"
#include "tools/sealMaker.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNoNamespace = 77;
const std::string kName = "Zephrin Lumen Client Services";

// The exit status of a shell command.
int Shell(const std::string &command) {
  const int status =
      system(command.c_str());  // NOLINT(cert-env33-c): made of this test's own paths
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

  static std::string Authority(const std::string &file) { return authority->Path(file); }

  static std::string Anchors() { return ReadFile(Authority("root.pem")); }

  static std::string Sign(const std::string &text, const std::string &signer = "valid") {
    const std::string chain = Authority(signer + ".chain.pem");
    return SealMaker_Sign(text, {Authority(signer + ".key"), Authority(signer + ".pem"),
                                 fs::exists(chain) ? chain : ""});
  }

  // By the command-line program, with options of its own.
  std::string SignOdd(const std::string &text, const std::string &options) const {
    const std::string out = dir.Path("odd"), signer = Authority("valid");
    EXPECT_EQ(0, Shell("openssl cms -sign -binary -outform DER -in " + dir.Write("text", text) +
                       " -signer " + signer + ".pem -inkey " + signer + ".key " + options +
                       " -out " + out));
    return ReadFile(out);
  }

  static SealVerdict Open(const std::string &seal, std::string *text = nullptr) {
    SmallFileBytes bytes;
    const SealVerdict verdict = SealOpen(seal, Anchors(), &bytes);
    if (text != nullptr) *text = bytes.View();
    return verdict;
  }

  static void SealUp(const std::string &path, const std::string &signer = "valid") {
    const Fd item = SealOpenItem(path.c_str());
    ASSERT_TRUE(item);
    SealMaker_Attach(item.Get(), Sign(SealMaker_Text(item.Get(), kName), signer));
  }

  static SealVerdict Check(const std::string &path, const std::string &identifier = kName) {
    const Fd item = SealOpenItem(path.c_str());
    return SealCheck(item.Get(), identifier.c_str(), Anchors());
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
  const std::string linked =
      Written(odd.c_str(),
              {{odd.c_str(), "t%41 \n", {}}, {"a", nullptr, {{0xAB, 0x01}}}, {"a%b", "a", {}}});
  ASSERT_TRUE(SealParse(linked, &parsed));
  EXPECT_EQ(odd, parsed.identifier);
  EXPECT_STREQ("t%41 \n", SealFind(parsed, odd.c_str())->target);
  EXPECT_EQ((SealDigest{0xAB, 0x01}), SealFind(parsed, "a")->digest);
  EXPECT_EQ(nullptr, SealFind(parsed, "b"));
  EXPECT_EQ(linked, Written(parsed.identifier, {parsed.items.get(), parsed.items.get() + 3}));
}

// That what is read has one form: fuzz/seal_fuzz.cpp.
TEST(SealText, HasOneFormOnly) {
  const std::string head = "zephrin-codeseal 1\nidentifier i\n", hex(64, '0');
  SealText parsed;
  EXPECT_TRUE(SealParse(head + "sha256 " + hex + " a\nlink t%0A b\n", &parsed));
  for (const std::string lines :
       {"\n", "link t a", "link t a\nlink t a\n", "link t b\nlink t a\n", "link t  a\n",
        "link t\ta\n", "link  a\n", "link t \n", "link t a%\n", "link t a%0\n", "link t a%0a\n",
        "link t a%41\n", "link t a%00\n"}) {
    EXPECT_FALSE(SealParse(head + lines, &parsed)) << lines;
  }
  const std::string texts[] = {"zephrin-codeseal 1\n",
                               "zephrin-codeseal 1\nidentifier \n",
                               "zephrin-codeseal 2\nidentifier i\n",
                               head + "sha256 " + hex + "0 a\n",
                               head + "sha256 " + hex.substr(1) + " a\n",
                               head + std::string("link t a\0\n", 10)};
  for (const std::string &bad : texts) {
    EXPECT_FALSE(SealParse(bad, &parsed)) << bad;
  }
}

// ---- the signature -----------------------------------------------------------------------------

TEST_F(Seal, IsBelievedFromSignersWhoMay) {
  const std::pair<const char *, SealVerdict> kRows[] = {
      {"valid", SealVerdict::Valid},           {"viaAuthority", SealVerdict::Valid},
      {"expired", SealVerdict::Untrusted},     {"stranger", SealVerdict::Untrusted},
      {"wrongUse", SealVerdict::NotForCode},   {"noUse", SealVerdict::NotForCode},
      {"viaServers", SealVerdict::NotForCode}, {"wrongName", SealVerdict::NotMaker},
  };
  for (const auto &[signer, verdict] : kRows) {
    EXPECT_EQ(verdict, Open(Sign("text", signer))) << signer;
  }
  SmallFileBytes text;
  for (const std::string &anchors : {std::string(), Anchors().substr(0, 99)}) {
    EXPECT_EQ(SealVerdict::NoAnchors, SealOpen(Sign("text"), anchors, &text));
  }
}

TEST_F(Seal, IsOneSignatureInDer) {
  const std::string plain = SignOdd("text", "-nodetach -md sha512");
  EXPECT_EQ(SealVerdict::Valid, Open(plain));
  EXPECT_EQ(SealVerdict::NotCms, Open(plain + '\0'));
  EXPECT_EQ(SealVerdict::NotCms, Open(""));
  const std::pair<std::string, SealVerdict> kRows[] = {
      {"-nodetach -md sha1", SealVerdict::WeakDigest},
      {"-nodetach -signer " + Authority("viaAuthority.pem") + " -inkey " +
           Authority("viaAuthority.key"),
       SealVerdict::NotCms},
      {"-nodetach -stream", SealVerdict::NotCms},  // BER
      {"", SealVerdict::NotCms},                   // the text is elsewhere
      {"-nodetach -nocerts", SealVerdict::BadSignature},
      {"-nodetach -econtent_type 1.2.3", SealVerdict::NotCms},
  };
  for (const auto &[options, verdict] : kRows) {
    EXPECT_EQ(verdict, Open(SignOdd("text", options))) << options;
  }
}

TEST_F(Seal, NoChangedByteMakesItSaySomethingElse) {
  const std::string seal = Sign("text");
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
  if (setxattr(path.c_str(), "user.probe", "", 0, 0) != 0 && errno == ENOTSUP) {
    SKIP_FOR_WANT_OF("extended attributes of users");
  }
  EXPECT_EQ(SealVerdict::NoSeal, Check(path));
  SealUp(path);
  EXPECT_EQ(SealVerdict::Valid, Check(path));
  EXPECT_EQ(SealVerdict::OtherName, Check(path, kName + " "));
  dir.Write("file", "Content");
  EXPECT_EQ(SealVerdict::Changed, Check(path));
  const Fd item = SealOpenItem(path.c_str());
  SealMaker_Attach(item.Get(), Sign("zephrin-codeseal 1\n"));
  EXPECT_EQ(SealVerdict::BadText, Check(path));
  // A list of something else does not vouch for the file.
  SealMaker_Attach(item.Get(), Sign(Written(kName.c_str(), {})));
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
    dir.Write("b.kext/Contents/Info.plist", "list");
    dir.Write("b.kext/Contents/a/odd \n%\xFF", "odd");
    dir.Write("b.kext/Contents/a-b", "");
    fs::create_symlink("a/odd", bundle / "Contents/link");
    SealUp(bundle);
    SealUp(bundle);
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
    const std::string enter = "cd " + dir.Path() + " && ";
    EXPECT_EQ(0, Shell(enter + "chown 0 . && rm -rf etc real && mkdir -m 755 etc && printf anchors "
                               ">etc/pem && chmod 644 etc/pem"));
    EXPECT_EQ(0, Shell(enter + change));
    const Fd start(open(dir.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    SmallFileBytes anchors;
    EXPECT_EQ(good ? SealVerdict::Valid : SealVerdict::NoAnchors,
              SealReadAnchors(start.Get(), "etc/pem", &anchors))
        << change;
    EXPECT_EQ(good ? "anchors" : "", anchors.View()) << change;
  }
}

// ---- the seam, the tool ------------------------------------------------------------------------

// In a mount namespace where /etc holds the anchors and nothing else.
TEST_F(Seal, IsAcceptedOnTheMachinesAnchors) {
  const fs::path bundle = dir.Path("b");
  fs::create_directories(bundle / "Contents");
  SealUp(bundle);
  const std::string anchors = Anchors();
  const auto verify = [&](const std::string &name) {
    return std::to_string(Platform_VerifyCodeSignature(bundle.c_str(), name.c_str())) + " ";
  };
  const ChildResult result = RunInChild([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("", "/etc", "tmpfs", 0, "mode=755") != 0) {
      _exit(kNoNamespace);
    }
    signal(SIGCHLD, SIG_IGN);
    mkfifo(dir.Path("fifo").c_str(), 0600);
    std::string codes =
        std::to_string(Platform_VerifyCodeSignature(dir.Path("fifo").c_str(), kName.c_str())) +
        verify(kName);
    fs::create_directory("/etc/zephrin");
    std::ofstream("/etc/zephrin/code-signing-anchors.pem") << anchors;
    codes += verify(kName) + verify("other");
    chmod("/etc/zephrin", 0777);
    std::cout << codes + verify(kName) << std::flush;
  });
  if (result.exitStatus == kNoNamespace) SKIP_FOR_WANT_OF("a mount namespace");
  EXPECT_EQ("37 0 7 7 ", result.output);
}

TEST_F(Seal, ToolSignsAndVerifies) {
  const std::string bundle = dir.Path("b"), log = " >" + dir.Path("log") + " 2>&1";
  fs::create_directories(bundle + "/Contents/_CodeSignature");
  dir.Write("b/Contents/_CodeSignature/CodeSeal.new", "left by an interrupted run");
  const std::string sign = LUMEN_CODESEAL " sign --key " + Authority("valid.key") + " --cert " +
                           Authority("valid.pem") + " --identifier name " + bundle + log;
  const std::string verify =
      LUMEN_CODESEAL " verify --anchors " + Authority("root.pem") + " --identifier ";
  EXPECT_EQ(0, Shell(sign)) << ReadFile(dir.Path("log"));
  EXPECT_EQ(1, Shell(verify + "other " + bundle + log));
  EXPECT_NE(std::string::npos, ReadFile(dir.Path("log")).find("another identifier"));
  EXPECT_EQ(2, Shell(verify + "name" + log));
  // With a configuration that lets nothing be computed, and the proof that it would.
  const std::string configuration =
      "OPENSSL_CONF='" +
      dir.Write("config",
                "openssl_conf = a\n[a]\nalg_section = b\n[b]\ndefault_properties = x=y\n") +
      "' ";
  EXPECT_NE(0, Shell(configuration + "openssl dgst -sha256 /dev/null" + log));
  EXPECT_EQ(0, Shell(configuration + verify + "name " + bundle + log));
}

}  // namespace
