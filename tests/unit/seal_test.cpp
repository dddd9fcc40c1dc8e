// seal_test.cpp -- the text inside a seal, its signature bit by bit, and the permissions of the anchors.
// tests/system/codeseal_test tests which signers are accepted and which changes are noticed.

#include <malloc.h>

#include "platform/linux/seal/sealCheck.h"
#include "platform/linux/seal/sealSignature.h"
#include "platform/linux/seal/sealText.h"
#include "tests/support/asRoot.h"
#include "tests/support/test.h"

namespace {

using std::string;

// fuzz/seal_fuzz.cpp tests that accepted texts are written identically, and that items are found.
TEST(SealText, HasOneFormOnly) {
  const string head = "zephrin-codeseal 2\nidentifier i\n", most = std::to_string(INT64_MAX);
  const string sha = "sha256 " + string(64, '0');
  SealText parsed;
  ASSERT_EQ(SealVerdict::Valid,
            SealParse(head + sha + " 0 a\nlink t%0A b\n" + sha + " " + most + " c\n", &parsed));
  EXPECT_EQ(uint64_t{INT64_MAX}, parsed.bytes);
  for (const string &lines :
       {string("\n"), string("link t a"), sha + "0 0 a\n", sha + " a\n", sha + "  a\n",
        sha + " 01 a\n", sha + " +1 a\n", sha + " 9223372036854775808 a\n",
        sha + " 1 a\n" + sha + " " + most + " b\n", string("link t a\nlink t a\n"),
        string("link t b\nlink t a\n"), string("link  a\n"), string("link t a%0a\n"),
        string("link t a%41\n"), string("link t a%00\n"), string("link t a\0\n", 10)}) {
    EXPECT_EQ(SealVerdict::BadText, SealParse(head + lines, &parsed)) << lines;
  }
  string many = head;
  for (size_t i = 0; i <= kSealMaxItems; i++)
    many += "link t " + std::to_string(1'000'000 + i) + "\n";
  EXPECT_EQ(SealVerdict::BadText, SealParse(many, &parsed));
  EXPECT_EQ(SealVerdict::BadText, SealParse("zephrin-codeseal 3\nidentifier i\n", &parsed));
  // With one of these lengths the block that malloc returns is no larger than the room asked for.
  for (size_t length = 1, size = 0; length <= 16; length++) {
    const HeapArray<char> written = SealWrite(string(length, '%').c_str(), {}, &size);
    EXPECT_LE(size, malloc_usable_size(written.get()));
  }
}

TEST(Seal, NoChangedByteMakesItSaySomethingElse) {
  const ScratchDir dir;
  const string text = "zephrin-codeseal 2\n";
  const string command =
      "cd " + dir.Path() +
      " && " LUMEN_MAKE_AUTHORITY
      " . && openssl cms -sign -binary -nodetach -outform DER -in text -out out -signer valid.pem "
      "-inkey valid.key";
  dir.Write("text", text);
  ASSERT_EQ(0, system(command.c_str()));  // NOLINT(cert-env33-c): made of this test's own paths
  const string seal = ReadFile(dir.Path("out")), anchors = ReadFile(dir.Path("root.pem"));
  SmallFileBytes said;
  ASSERT_EQ(SealVerdict::Valid, SealOpen(seal, anchors, &said));
  const size_t step = getenv("LUMEN_ROUNDS") == nullptr ? 3 : 1;
  for (size_t i = 0; i < seal.size(); i += step) {
    string changed = seal;
    changed[i] = static_cast<char>(changed[i] ^ 1 << i % 8);
    EXPECT_TRUE(SealOpen(changed, anchors, &said) != SealVerdict::Valid || said.View() == text)
        << i;
  }
}

TEST(Seal, AnchorsAreRootsAlone) {
  RUN_AS_ROOT();
  const ScratchDir dir;
  const string fresh = "cd " + dir.Path() +
                       " && chown 0 . && rm -rf etc real && mkdir -m 755 etc && printf anchors "
                       ">etc/pem && chmod 644 etc/pem && ";
  for (const string change :
       {"true", "chmod 664 etc/pem", "chmod 646 etc/pem", "chown 12345 etc/pem",
        "chmod 757 etc",  // others could rename the file and put another one in its place
        "chown 12345 etc", "chown 12345 .", "mv etc/pem etc/real; ln -s real etc/pem",
        "mv etc real; ln -s real etc", "rm etc/pem; mkfifo etc/pem"}) {
    const bool good = change == "true";
    EXPECT_EQ(0, system((fresh + change).c_str()));  // NOLINT(cert-env33-c): as above
    const Fd start(open(dir.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    SmallFileBytes anchors;
    EXPECT_EQ(good ? SealVerdict::Valid : SealVerdict::NoAnchors,
              SealReadAnchors(start.Get(), "etc/pem", &anchors))
        << change;
    EXPECT_EQ(good ? "anchors" : "", anchors.View()) << change;
  }
}

}  // namespace
