// location_test.cpp -- what the opener does first: the environment scrub, and the paths of the product's
// files, from programs at many places.
//
// The program is its own child: `location_test --look-up TAG KEY`, run from a copy of itself,
// prints what the look-up gives there, and `location_test --declare` what a set-user-ID one does.

#include "opener/location.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "heap.h"
#include "opener/startup.h"
#include "tests/support/asRoot.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

void PrintRoot(const char *key) {
  const HeapStr path(LocationGetRoot(key));
  dprintf(STDOUT_FILENO, "%s\n", path == nullptr ? "null" : path.get());
}

using Entries = std::vector<std::string>;

// What `scrub` leaves of an environment.
Entries Scrubbed(Entries entries, const std::function<void()> &scrub = ScrubEnvironment) {
  std::vector<char *> list;
  for (std::string &entry : entries) list.push_back(entry.data());
  list.push_back(nullptr);
  char **const before = std::exchange(environ, list.data());
  scrub();
  environ = before;
  return {list.begin(), std::find(list.begin(), list.end(), nullptr)};
}

TEST(Scrub, HasTheEffectOfUnsetenv) {
  const char *const names[] = {"a", "b", "ab", "ENV", "BASH_ENV", "SHELLOPTS", "XENV"};
  const char *const values[] = {"", "=", "=() {", "=() { x", "=x", "=() ", "=()  {", "=k=() {"};
  const std::regex harmful(R"(([^=]*)=\(\) \{.*|((?:BASH_)?ENV|SHELLOPTS)=.*)");
  std::mt19937 random(1);
  for (int i = 0; i < 2000; i++) {
    Entries entries(random() % 12);
    for (std::string &entry : entries) {
      entry = names[random() % std::size(names)];
      entry += values[random() % std::size(values)];
    }
    const auto unset = [&] {
      std::smatch match;
      for (const std::string &entry : entries) {
        if (std::regex_match(entry, match, harmful))
          unsetenv((match.str(1) + match.str(2)).c_str());
      }
    };
    EXPECT_EQ(Scrubbed(entries, unset), Scrubbed(entries));
  }
  char **const before = std::exchange(environ, nullptr);
  ScrubEnvironment();
  EXPECT_EQ(nullptr, std::exchange(environ, before));
}

// With a walk for each entry that goes it would take 64 times as long, not 8.
TEST(Scrub, TakesTimeInProportion) {
  clock_t least[2] = {};  // on the clock of this process alone
  for (const int size : {7500, 60000}) {
    Entries entries;
    for (int i = 0; i < size; i++)
      entries.push_back(std::to_string(i) + (i % 2 != 0 ? "=" : "=() {"));
    clock_t &time = least[size == 60000] = std::numeric_limits<clock_t>::max();
    for (int i = 0; i < 5; i++) {
      const clock_t start = clock();
      EXPECT_EQ(size / 2, std::ssize(Scrubbed(entries)));
      time = std::min(time, clock() - start);
    }
  }
  EXPECT_LT(least[1], 32 * least[0]);
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

// As the opener runs: saved and real user ids are root's.
int DeclareAsSetUserId() {
  if (seteuid(65534) != 0) return 3;
  PrintRoot("rootDir");
  Location_Init("lumenClient-opener");
  if (HeapStr(LocationGetRoot("rootDir")) == nullptr) return 4;
  Location_Init("lumen-remotedisplay-bundle");
  Location_Init("Unknown");
  PrintRoot("rootDir");
  return 42;
}

// From a copy, because this program may lie where only root can look.
TEST(Location, ASetUserIdProcessMustDeclareItselfOnce) {
  RUN_AS_ROOT();
  const ScratchDir dir;
  const std::string folder = dir.Path("1/2/3/4"), program = folder + "/program";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file("/proc/self/exe", program);
  ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
  const ChildResult result =
      RunInChild([&] { execl(program.c_str(), program.c_str(), "--declare", nullptr); });
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
  if (argc == 2 && std::string_view(argv[1]) == "--declare") return DeclareAsSetUserId();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
