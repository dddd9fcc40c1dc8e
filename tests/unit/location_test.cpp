// location_test.cpp -- paths of the product's files, from programs at many places.
//
// The program is its own child: `location_test --look-up TAG KEY`, run from a copy of itself,
// prints what the look-up gives there.

#include "opener/location.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "heap.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

void PrintRoot(const char *key) {
  const HeapStr path(LocationGetRoot(key));
  dprintf(STDOUT_FILENO, "%s\n", path == nullptr ? "null" : path.get());
}

// What a copy of this program prints that stands, or is linked, at `path`.
std::string LookUpFrom(const std::string &path, const char *tag, const char *key,
                       const char *mode = "--look-up") {
  const ChildResult result =
      RunInChild([&] { execl(path.c_str(), path.c_str(), mode, tag, key, nullptr); });
  EXPECT_EQ(0, result.exitStatus) << path << ", signal " << result.signal;
  return WithoutStamps(result.output);
}

// A scratch folder by its real path, with copies of this program in it.
class Copies {
  ScratchDir dir_;
  std::string root_ = std::filesystem::canonical(dir_.Path());

 public:
  const std::string &Root() const { return root_; }

  std::string At(const std::string &below) const {
    const std::string path = root_ + below;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::copy_file("/proc/self/exe", path);
    return path;
  }
};

TEST(Location, FindsTheFilesOfItsBundle) {
  const Copies copies;
  const std::string program = copies.At("/1/2/3/4/5/6/program");
  const std::string link = copies.Root() + "/link";
  std::filesystem::create_symlink(program, link);
  struct {
    std::string path;
    const char *tag, *key;
    std::string expected;
  } const rows[] = {
      {program, "lumenClient-daemon", "rootDir", copies.Root() + "/1/2/3/4"},
      {program, "lumenClient-opener", "usbarbKext",
       copies.Root() + "/1/2/3/4/Contents/Library/kexts/zioplug.kext"},
      {program, "lumen-remotedisplay-bundle", "rootDir", copies.Root() + "/1"},
      {link, "lumenClient-opener", "frameworkDir", copies.Root() + "/1/2/3/4/Contents/Frameworks"},
      {program, "lumenClient-opener", "libdir", "null"},
      {program, "lumenClient-opener", "RootDir", "null"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected + "\n", LookUpFrom(row.path, row.tag, row.key));
  }
  EXPECT_EQ(nullptr, LocationGetRelative("libdir"));
  EXPECT_STREQ("", LocationGetRelative("rootDir"));
}

// The module path has room for 1023 bytes.
TEST(Location, ReportsAnExecutableThatCannotBeFound) {
  const Copies copies;
  const std::string gone = copies.At("/gone");
  EXPECT_EQ("Warning: LocationGetRoot: Unable to get the realpath for " + gone + " (deleted)null\n",
            LookUpFrom(gone, "lumenClient-opener", "rootDir", "--remove-and-look-up"));
  std::string below = "/1/2/3";
  while (copies.Root().size() + below.size() < 800) below += "/" + std::string(50, 'd');
  below += "/" + std::string(1023 - copies.Root().size() - below.size() - 1, 'p');
  EXPECT_TRUE(LookUpFrom(copies.At(below), "lumenClient-opener", "sslDir")
                  .ends_with("/Contents/Frameworks\n"));
  EXPECT_EQ(
      "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n"
      "Warning: LocationGetRoot: Unable to retrieve path to executable.null\n",
      LookUpFrom(copies.At(below + "p"), "lumenClient-opener", "sslDir"));
}

TEST(Location, ASetUserIdProcessMustDeclareItselfOnce) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root, to have two user ids");
  const ChildResult result = RunInChild([] {
    if (seteuid(65534) != 0) _exit(3);
    PrintRoot("rootDir");
    PrintRoot("unknown");
    Location_Init("lumenClient-opener");
    if (HeapStr(LocationGetRoot("rootDir")) == nullptr) _exit(4);
    Location_Init("lumen-remotedisplay-bundle");
    Location_Init("Unknown");
    PrintRoot("rootDir");
  });
  EXPECT_EQ(42, result.exitStatus);
  const std::string refusal =
      "Warning: LocationGetRoot: Cannot get location root of a setuid process.\nnull\n";
  const std::string invalid = "Warning: Location_Init: Invalid initialization: sUpCount ";
  EXPECT_EQ(refusal + "null\n" + invalid + "3, processTag lumen-remotedisplay-bundle.\n" + invalid +
                "6, processTag Unknown.\n" + refusal,
            WithoutStamps(result.output));
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view mode = argc == 4 ? argv[1] : "";
  if (mode == "--look-up" || mode == "--remove-and-look-up") {
    if (mode != "--look-up" && unlink(argv[0]) != 0) return 3;
    Location_Init(argv[2]);
    PrintRoot(argv[3]);
    return 0;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
