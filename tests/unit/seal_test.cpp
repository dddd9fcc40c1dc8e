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
  static ScratchDir *authority;
  ScratchDir dir;

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
    const std::string out = dir.Path("odd");
    EXPECT_EQ(0, Shell("openssl cms -sign -binary -outform DER -in '" + dir.Write("text", text) +
                       "' -signer '" + Authority("valid.pem") + "' -inkey '" +
                       Authority("valid.key") + "' " + options + " -out '" + out + "'"));
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

ScratchDir *Seal::authority;

// ---- the text ----------------------------------------------------------------------------------

std::string Written(const char *identifier, const std::vector<SealItem> &items) {
  size_t size = 0;
  const HeapArray<char> text = SealWrite(identifier, items, &size);
  return {text.get(), size};
}

TEST(SealText, KeepsEveryByteOfNamesAndTargets) {
  std::string odd;
  for (int c = 1; c < 256; c++) odd += static_cast<char>(c);
  const std::string text =
      Written(odd.c_str(), {{"a", nullptr, {{0xAB, 0x01}}}, {odd.c_str(), nullptr, {}}});
  SealText parsed;
  ASSERT_FALSE(SealParse(text, &parsed));  // not in order: the odd path begins with byte 1
  const std::string linked =
      Written(odd.c_str(),
              {{odd.c_str(), "t%41 \n", {}}, {"a", nullptr, {{0xAB, 0x01}}}, {"a%b", "a", {}}});
  ASSERT_TRUE(SealParse(linked, &parsed));
  EXPECT_EQ(odd, parsed.identifier);
  ASSERT_EQ(3U, parsed.count);
  EXPECT_STREQ("t%41 \n", SealFind(parsed, odd.c_str())->target);
  EXPECT_EQ((SealDigest{0xAB, 0x01}), SealFind(parsed, "a")->digest);
  EXPECT_EQ(nullptr, SealFind(parsed, "b"));
  EXPECT_EQ(linked, Written(parsed.identifier, {parsed.items.get(), parsed.items.get() + 3}));
}

TEST(SealText, HasOneFormOnly) {
  const std::string head = "zephrin-codeseal 1\nidentifier i\n";
  const std::string hex(64, '0');
  SealText parsed;
  for (const std::string &good : {head, head + "sha256 " + hex + " a\n", head + "link t%0A a\n"}) {
    EXPECT_TRUE(SealParse(good, &parsed)) << good;
  }
  for (const std::string &bad : std::vector<std::string>{
           "",
           "zephrin-codeseal 1\n",
           "zephrin-codeseal 2\nidentifier i\n",
           "zephrin-codeseal 1\nidentifier \n",
           "\n" + head,
           head + "\n",
           head + "link t a",
           head + "link t a\nlink t a\n",     // twice
           head + "link t b\nlink t a\n",     // not in order
           head + "link t  a\n",              // a bare blank
           head + "link t\ta\n",              // another byte that has to be escaped
           head + "link  a\n",                // no target
           head + "link t \n",                // no path
           head + "link t a%\n",              // an escape cut off
           head + "link t a%0\n",             //
           head + "link t a%0a\n",            // digits in lower case
           head + "link t a%41\n",            // an escape that need not be
           head + "link t a%00\n",            // no byte of a path
           head + "sha256 " + hex + "0 a\n",  // too many digits
           head + "sha256 " + hex.substr(1) + " a\n",
           head + "sha256 " + std::string(64, 'A') + " a\n",
           head + "sha512 " + hex + " a\n",
           head + std::string("link t a\0\n", 10),
       }) {
    EXPECT_FALSE(SealParse(bad, &parsed)) << bad;
  }
}

// ---- the signature -----------------------------------------------------------------------------

TEST_F(Seal, IsBelievedFromSignersWhoMay) {
  const struct {
    const char *signer;
    SealVerdict verdict;
  } kRows[] = {
      {"valid", SealVerdict::Valid},           {"viaAuthority", SealVerdict::Valid},
      {"expired", SealVerdict::Untrusted},     {"stranger", SealVerdict::Untrusted},
      {"wrongUse", SealVerdict::NotForCode},   {"noUse", SealVerdict::NotForCode},
      {"viaServers", SealVerdict::NotForCode}, {"wrongName", SealVerdict::NotMaker},
  };
  for (const auto &row : kRows) {
    EXPECT_EQ(row.verdict, Open(Sign("text", row.signer))) << row.signer;
  }
  SmallFileBytes text;
  for (const std::string &anchors :
       {std::string(), std::string("no PEM"), Anchors().substr(0, 99)}) {
    EXPECT_EQ(SealVerdict::NoAnchors, SealOpen(Sign("text"), anchors, &text));
  }
}

TEST_F(Seal, IsOneSignatureInDer) {
  const std::string plain = SignOdd("text", "-nodetach -md sha512");
  EXPECT_EQ(SealVerdict::Valid, Open(plain));
  EXPECT_EQ(SealVerdict::NotCms, Open(plain + '\0'));
  EXPECT_EQ(SealVerdict::NotCms, Open(plain + plain));
  EXPECT_EQ(SealVerdict::NotCms, Open(""));
  const std::string second = " -signer '" + Authority("viaAuthority.pem") + "' -inkey '" +
                             Authority("viaAuthority.key") + "'";
  const struct {
    std::string options;
    SealVerdict verdict;
  } kRows[] = {
      {"-nodetach -md sha1", SealVerdict::WeakDigest},
      {"-nodetach" + second, SealVerdict::NotCms},
      {"-nodetach -stream", SealVerdict::NotCms},  // BER
      {"", SealVerdict::NotCms},                   // the text is elsewhere
      {"-nodetach -nocerts", SealVerdict::BadSignature},
      {"-nodetach -econtent_type 1.2.3", SealVerdict::NotCms},
  };
  for (const auto &row : kRows) {
    EXPECT_EQ(row.verdict, Open(SignOdd("text", row.options))) << row.options;
  }
}

TEST_F(Seal, NoChangedByteMakesItSaySomethingElse) {
  const std::string seal = Sign("text");
  const size_t step = getenv("LUMEN_ROUNDS") == nullptr ? 3 : 1;
  for (size_t i = 0; i < seal.size(); i += step) {
    if (i % 16 == 0) {
      EXPECT_NE(SealVerdict::Valid, Open(seal.substr(0, i))) << i;
    }
    std::string changed = seal;
    changed[i] = static_cast<char>(changed[i] ^ 1 << i % 8);
    std::string text;
    if (Open(changed, &text) == SealVerdict::Valid) {
      EXPECT_EQ("text", text) << i;
    }
  }
}

TEST_F(Seal, IsReadByOthersToo) {
  EXPECT_EQ(0, Shell("openssl cms -verify -inform DER -purpose any -in '" +
                     dir.Write("seal", Sign("text")) + "' -CAfile '" + Authority("root.pem") +
                     "' -out '" + dir.Path("text") + "' 2>'" + dir.Path("log") + "'"));
  EXPECT_EQ("text", ReadFile(dir.Path("text")));
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
  EXPECT_EQ(SealVerdict::OtherName, Check(path, "services"));
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
  const struct {
    SealVerdict verdict;
    const char *change;  // a shell command in the folder Contents; ../.. is another place
  } kRows[] = {
      {SealVerdict::Valid, "chmod 600 a-b; touch a-b; mkdir a/new"},
      {SealVerdict::Changed, "printf lisT >Info.plist"},
      {SealVerdict::Changed, "printf x >>a-b"},
      {SealVerdict::Changed, "mv a-b x; mv Info.plist a-b; mv x Info.plist"},
      {SealVerdict::Changed, "ln -sfn a/ode link"},
      {SealVerdict::Changed, "rm link; printf odd >link"},
      {SealVerdict::Changed, "mv a-b ../../file; ln -s ../../file a-b"},
      {SealVerdict::Unlisted, "mv a ../../folder; ln -s ../../folder a"},
      {SealVerdict::Unlisted, "touch a/new"},
      {SealVerdict::Unlisted, "touch _CodeSignature/new"},
      {SealVerdict::Unlisted, "ln -s a new"},
      {SealVerdict::Missing, "rm a-b"},
      {SealVerdict::Unreadable, "mkfifo new"},
      {SealVerdict::Unreadable, "rm a-b; mkfifo a-b"},
      {SealVerdict::Unreadable, "mkdir -p $(printf 'd/%.0s' $(seq 33))"},
      {SealVerdict::NoSeal, "rm _CodeSignature/CodeSeal"},
      {SealVerdict::NoSeal, "mv _CodeSignature/CodeSeal x; ln -s ../x _CodeSignature/CodeSeal"},
      {SealVerdict::NoSeal, "mv _CodeSignature x; ln -s x _CodeSignature"},
      {SealVerdict::NoSeal, "rm _CodeSignature/CodeSeal; mkfifo _CodeSignature/CodeSeal"},
  };
  for (const auto &row : kRows) {
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
    EXPECT_EQ(0, Shell("cd '" + bundle.string() + "/Contents' && " + row.change));
    EXPECT_EQ(row.verdict, Check(bundle)) << row.change;
  }
}

TEST_F(Seal, AnchorsAreRootsAlone) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root");
  const struct {
    bool good;
    const char *change;  // a shell command
  } kRows[] = {
      {true, "true"},
      {false, "rm etc/pem"},
      {false, "chmod 646 etc/pem"},
      {false, "chmod 664 etc/pem"},
      {false, "chown 12345 etc/pem"},
      {false, "chmod 757 etc"},  // who may rename it can put another file in its place
      {false, "chown 12345 etc"},
      {false, "chown 12345 ."},
      {false, "mv etc/pem etc/real; ln -s real etc/pem"},
      {false, "mv etc real; ln -s real etc"},
      {false, "rm etc/pem; mkfifo etc/pem"},
  };
  for (const auto &row : kRows) {
    const std::string enter = "cd '" + dir.Path() + "' && ";
    EXPECT_EQ(0, Shell(enter + "chown 0 . && rm -rf etc real && mkdir -m 755 etc && printf anchors "
                               ">etc/pem && chmod 644 etc/pem"));
    EXPECT_EQ(0, Shell(enter + row.change));
    const Fd start(open(dir.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    SmallFileBytes anchors;
    EXPECT_EQ(row.good ? SealVerdict::Valid : SealVerdict::NoAnchors,
              SealReadAnchors(start.Get(), "etc/pem", &anchors))
        << row.change;
    EXPECT_EQ(row.good ? "anchors" : "", anchors.View()) << row.change;
  }
}

// ---- the seam, the tool ------------------------------------------------------------------------

TEST_F(Seal, OfNothingFailsEarlierThanOfSomethingUnsigned) {
  mkfifo(dir.Path("fifo").c_str(), 0600);
  EXPECT_EQ(3, Platform_VerifyCodeSignature(dir.Path("fifo").c_str(), kName.c_str()));
  EXPECT_EQ(3, Platform_VerifyCodeSignature(dir.Path("nothing").c_str(), kName.c_str()));
  EXPECT_EQ(7, Platform_VerifyCodeSignature(dir.Write("file", "").c_str(), kName.c_str()));
}

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
    std::string codes = verify(kName);
    fs::create_directory("/etc/zephrin");
    std::ofstream("/etc/zephrin/code-signing-anchors.pem") << anchors;
    codes += verify(kName) + verify("other");
    chmod("/etc/zephrin", 0777);
    std::cout << codes + verify(kName) << std::flush;
  });
  if (result.exitStatus == kNoNamespace) SKIP_FOR_WANT_OF("a mount namespace");
  EXPECT_EQ("7 0 7 7 ", result.output);
}

TEST_F(Seal, ToolSignsAndVerifies) {
  const fs::path bundle = dir.Path("b");
  fs::create_directories(bundle / "Contents/_CodeSignature");
  std::ofstream(bundle / "Contents/_CodeSignature/CodeSeal.new") << "left by an interrupted run";
  const auto tool = [&](const std::string &arguments, const std::string &environment = "") {
    return Shell(environment + " " LUMEN_CODESEAL " " + arguments + " 2>'" + dir.Path("log") + "'");
  };
  const std::string signer =
      " --key '" + Authority("valid.key") + "' --cert '" + Authority("valid.pem") + "' ";
  const std::string verify = "verify --anchors '" + Authority("root.pem") + "' --identifier ";
  EXPECT_EQ(0, tool("sign" + signer + "--identifier name '" + bundle.string() + "'"))
      << ReadFile(dir.Path("log"));
  EXPECT_EQ(0, tool(verify + "name '" + bundle.string() + "'")) << ReadFile(dir.Path("log"));
  EXPECT_EQ(1, tool(verify + "other '" + bundle.string() + "'"));
  EXPECT_NE(std::string::npos, ReadFile(dir.Path("log")).find("another identifier"));
  EXPECT_EQ(1, tool(verify + "name '" + dir.Path("nothing") + "'"));
  EXPECT_EQ(2, tool(verify + "name"));
  EXPECT_EQ(2, tool("sign --identifier name '" + bundle.string() + "'"));

  // A configuration that lets nothing be computed, and the proof that it would.
  const std::string configuration =
      "OPENSSL_CONF='" +
      dir.Write("config",
                "openssl_conf = a\n[a]\nalg_section = b\n[b]\ndefault_properties = x=y\n") +
      "'";
  EXPECT_NE(
      0, Shell(configuration + " openssl dgst -sha256 /dev/null >'" + dir.Path("log") + "' 2>&1"));
  EXPECT_EQ(0, tool(verify + "name '" + bundle.string() + "'", configuration));
}

}  // namespace
