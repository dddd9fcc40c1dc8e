// location_test.cpp -- what the opener does first: the environment scrub, and the paths of the product's
// files, from programs at many places.
//
// The program is its own child: `location_test --look-up TAG KEY`, run from a copy of itself,
// prints what the look-up gives there.

#include "opener/location.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "heap.h"
#include "opener/startup.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

void PrintRoot(const char *key) {
  const HeapStr path(LocationGetRoot(key));
  dprintf(STDOUT_FILENO, "%s\n", path == nullptr ? "null" : path.get());
}

// The environment of this process while the object lives.
class Environment {
  std::vector<std::string> entries_;
  std::vector<char *> list_;
  char **const before_ = environ;

 public:
  explicit Environment(std::vector<std::string> entries) : entries_(std::move(entries)) {
    for (std::string &entry : entries_) list_.push_back(entry.data());
    list_.push_back(nullptr);
    environ = list_.data();
  }
  ~Environment() { environ = before_; }

  std::vector<std::string> Left() const {
    return {list_.begin(), std::find(list_.begin(), list_.end(), nullptr)};
  }
};

// As if unsetenv removed each harmful entry.
std::vector<std::string> ScrubbedByUnsetenv(const std::vector<std::string> &entries) {
  static const std::regex harmful(R"(([^=]*)=\(\) \{[^]*|((?:BASH_)?ENV|SHELLOPTS)=[^]*)");
  const Environment environment(entries);
  for (const std::string &entry : entries) {
    std::smatch match;
    if (std::regex_match(entry, match, harmful)) unsetenv((match.str(1) + match.str(2)).c_str());
  }
  return environment.Left();
}

TEST(Scrub, HasTheEffectOfUnsetenv) {
  const char *const names[] = {"a", "b", "ab", "ENV", "BASH_ENV", "SHELLOPTS", "XENV"};
  const char *const values[] = {"", "=", "=() {", "=() { x", "=x", "=() ", "=()  {", "=k=() {"};
  std::mt19937 random(1);
  for (int i = 0; i < 2000; i++) {
    std::vector<std::string> entries(random() % 12);
    for (std::string &entry : entries) {
      entry =
          std::string(names[random() % std::size(names)]) + values[random() % std::size(values)];
    }
    const Environment environment(entries);
    ScrubEnvironment();
    EXPECT_EQ(ScrubbedByUnsetenv(entries), environment.Left());
  }
  char **const before = std::exchange(environ, nullptr);
  ScrubEnvironment();
  EXPECT_EQ(nullptr, std::exchange(environ, before));
}

// The least of several runs, on the clock of this process alone.
clock_t TimeToScrub(int size) {
  std::vector<std::string> entries;
  for (int i = 0; i < size; i++)
    entries.push_back(std::to_string(i) + (i % 2 == 0 ? "=() {" : "="));
  clock_t least = std::numeric_limits<clock_t>::max();
  for (int i = 0; i < 5; i++) {
    const Environment environment(entries);
    const clock_t start = clock();
    ScrubEnvironment();
    least = std::min(least, clock() - start);
  }
  return least;
}

TEST(Scrub, TakesTimeInProportion) {
  // With a walk for each entry that goes it would be 64.
  EXPECT_LT(TimeToScrub(60000), 32 * TimeToScrub(7500));
}

// A link to the program, and a program elsewhere: tests/system/caller_test.cpp.
TEST(Location, FindsTheFilesOfItsBundle) {
  const ScratchDir dir;
  const std::string bundle = dir.Path("1/2/3/4"), program = bundle + "/5/6/program";
  // The longest path that there is room for, and one more.
  std::string deep = dir.Path("deep");
  while (deep.size() < 800) deep += "/" + std::string(50, 'd');
  const std::string longest = deep + "/" + std::string(1022 - deep.size(), 'p');
  const struct {
    std::string program;
    const char *tag, *key;
    std::string output;
  } rows[] = {
      {program, "lumenClient-daemon", "rootDir", bundle},
      {program, "lumenClient-opener", "usbarbKext",
       bundle + "/Contents/Library/kexts/zioplug.kext"},
      {program, "lumen-remotedisplay-bundle", "rootDir", dir.Path("1")},
      {program, "lumenClient-opener", "RootDir", "null"},
      {longest, "lumenClient-opener", "rootDir", deep.substr(0, deep.size() - 2 * 51)},
      {longest + "p", "lumenClient-opener", "rootDir",
       "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n"
       "Warning: LocationGetRoot: Unable to retrieve path to executable.null"},
  };
  for (const auto &row : rows) {
    std::filesystem::create_directories(std::filesystem::path(row.program).parent_path());
    std::filesystem::copy_file("/proc/self/exe", row.program,
                               std::filesystem::copy_options::skip_existing);
    const ChildResult result = RunInChild([&] {
      execl(row.program.c_str(), row.program.c_str(), "--look-up", row.tag, row.key, nullptr);
    });
    EXPECT_EQ(row.output + "\n", WithoutStamps(result.output));
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
