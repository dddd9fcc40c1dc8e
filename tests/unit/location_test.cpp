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

// A link to the program, and a program elsewhere: tests/system/caller_test.cpp.
TEST(Location, FindsTheFilesOfItsBundle) {
  const ScratchDir dir;
  const std::string bundle = dir.Path("1/2/3/4"), program = bundle + "/5/6/program";
  std::filesystem::create_directories(bundle + "/5/6");
  std::filesystem::copy_file("/proc/self/exe", program);
  const struct {
    const char *tag, *key;
    std::string path;
  } rows[] = {
      {"lumenClient-daemon", "rootDir", bundle},
      {"lumenClient-opener", "usbarbKext", bundle + "/Contents/Library/kexts/zioplug.kext"},
      {"lumen-remotedisplay-bundle", "rootDir", dir.Path("1")},
      {"lumenClient-opener", "RootDir", "null"},
  };
  for (const auto &row : rows) {
    const ChildResult result = RunInChild(
        [&] { execl(program.c_str(), program.c_str(), "--look-up", row.tag, row.key, nullptr); });
    EXPECT_EQ(row.path + "\n", result.output);
  }
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
