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

// What a copy of this program, made at `path`, prints.
std::string LookUpFrom(const std::string &path, const char *tag, const char *key) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::filesystem::copy_file("/proc/self/exe", path);
  const ChildResult result =
      RunInChild([&] { execl(path.c_str(), path.c_str(), "--look-up", tag, key, nullptr); });
  EXPECT_EQ(0, result.exitStatus) << path << ", signal " << result.signal;
  return WithoutStamps(result.output);
}

// A link to the program, and a program elsewhere: tests/system/refusals_test.cpp.
TEST(Location, FindsTheFilesOfItsBundle) {
  const ScratchDir dir;
  const std::string root = std::filesystem::canonical(dir.Path()), bundle = root + "/1/2/3/4";
  EXPECT_EQ(bundle + "\n", LookUpFrom(bundle + "/5/6/a", "lumenClient-daemon", "rootDir"));
  EXPECT_EQ(bundle + "/Contents/Library/kexts/zioplug.kext\n",
            LookUpFrom(bundle + "/5/6/b", "lumenClient-opener", "usbarbKext"));
  EXPECT_EQ(root + "/1\n", LookUpFrom(bundle + "/5/6/c", "lumen-remotedisplay-bundle", "rootDir"));
  EXPECT_EQ("null\n", LookUpFrom(bundle + "/5/6/d", "lumenClient-opener", "RootDir"));
  // The module path has room for 1023 bytes.
  std::string path = bundle;
  while (path.size() < 800) path += "/" + std::string(50, 'd');
  path += "/" + std::string(1023 - path.size() - 1, 'p');
  EXPECT_TRUE(LookUpFrom(path, "lumenClient-opener", "sslDir").ends_with("/Frameworks\n"));
  EXPECT_EQ(
      "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n"
      "Warning: LocationGetRoot: Unable to retrieve path to executable.null\n",
      LookUpFrom(path + "p", "lumenClient-opener", "sslDir"));
}

TEST(Location, ASetUserIdProcessMustDeclareItselfOnce) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root, to have two user ids");
  const ChildResult result = RunInChild([] {
    if (seteuid(65534) != 0) _exit(3);
    PrintRoot("rootDir");
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
  EXPECT_EQ(refusal + invalid + "3, processTag lumen-remotedisplay-bundle.\n" + invalid +
                "6, processTag Unknown.\n" + refusal,
            WithoutStamps(result.output));
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::string_view(argv[1]) == "--look-up") {
    Location_Init(argv[2]);
    PrintRoot(argv[3]);
    return 0;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
