// opener_test.cpp -- what the system tests do not see of the opener's modules: records of the log, the
// environment scrub, the paths of the product's files, and messages with anything but one descriptor.
//
// Linked with --wrap=gettimeofday and the wraps of allocFault.h.

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <ctime>

#include "lib/public/log.h"
#include "opener/location.h"
#include "opener/serviceImplWire.h"
#include "opener/startup.h"
#include "tests/support/allocFault.h"
#include "tests/support/asRoot.h"
#include "tests/support/peer.h"
#include "tests/support/process.h"
#include "tests/support/test.h"

namespace {

// ---- the log ---------------------------------------------------------------------------------

TEST(Log, StampsAreLocalTimeCutToMilliseconds) {
  // Off by half an hour, so that a fault in the zone cannot cancel out.
  setenv("TZ", "ODD-05:30", 1);
  tzset();
  EXPECT_EQ("2024-03-05T09:07:02.045| x", CaptureOutput([] { Log("x"); }));
}

TEST(Log, LogOpenTruncatesTheFileAndTakesAllFurtherRecordsOrNone) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", std::string(5000, 'o')), fresh = dir.Path("fresh");
  const ChildResult result = RunInChild([&] {
    umask(0);
    const int first = LogOpen(old.c_str());
    Log("to old\n");
    const int second = LogOpen(fresh.c_str());
    Log("to fresh %d\n", first >= 0 && second > first);
    if (LogOpen(dir.Path("missing/log").c_str()) != -1 || errno != ENOENT) _exit(3);
    Panic("lost\n");
  });
  EXPECT_TRUE(result.exitStatus == 1 && result.output.empty()) << result.output;
  EXPECT_EQ("to old\n", WithoutStamps(ReadFile(old)));
  EXPECT_EQ("to fresh 1\n", WithoutStamps(ReadFile(fresh)));
  EXPECT_EQ(fs::perms{0644}, fs::status(fresh).permissions());
}

TEST(Log, KeepsItsRecordsAndThoseOfChildrenUntilItMayWriteThem) {
  const std::string body(1000, 'b');
  const std::string records = CaptureOutput([&] {
    LogHold();
    Log("held\n");
    const pid_t child = fork();
    if (child == 0) {
      Warning("from a child\n");
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    dprintf(STDOUT_FILENO, "nothing yet\n");
    LogRelease();
    Log("at once\n");
    LogHold();
    for (int i = 0; i < 40; i++) Log("%s\n", body.c_str());
    LogRelease();
  });
  const std::string text = WithoutStamps(records);
  EXPECT_TRUE(text.starts_with("nothing yet\nheld\nWarning: from a child\nat once\n" + body))
      << text;
  EXPECT_TRUE(text.ends_with("Warning: LogRelease: Some records did not fit.\n"));
  // No gap between records, and no remains of the first ones.
  EXPECT_EQ(std::string::npos, text.find('\0'));
}

TEST(Log, AllocatesNothingAndDropsTheBodyThatDoesNotFit) {
  const std::string body(1023, 'b');
  const AllocFault fault(1);
  const std::string records = CaptureOutput([&] {
    Warning("%s", body.c_str());
    Warning("%s!", body.c_str());
    Log("%d%%\n", 7);
  });
  EXPECT_FALSE(fault.Fired());
  EXPECT_EQ("Warning: " + body + "Warning: 7%\n", WithoutStamps(records));
}

// ---- the environment --------------------------------------------------------------------------

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
  const char *const names[] = {"a", "ab", "ENV", "BASH_ENV", "SHELLOPTS", "XENV", "ENVI", "env"};
  const char *const values[] = {"",     "=",      "=() {",   "=() { x", "=x",
                                "=() ", "=()  {", "=k=() {", "=(){ "};
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

// In some hundredths of a second of processor time; unsetenv for each harmful entry would take minutes.
TEST(Scrub, IsQuickWhateverTheEnvironment) {
  Entries entries;
  for (int i = 0; i < 300'000; i++)
    entries.push_back(std::to_string(i) + (i % 2 != 0 ? "=" : "=() {"));
  const clock_t start = clock();
  EXPECT_EQ(150'000, std::ssize(Scrubbed(entries)));
  EXPECT_LT(clock() - start, 5 * CLOCKS_PER_SEC);
}

// ---- the bundle ------------------------------------------------------------------------------

// tests/system/caller_test.cpp starts the program through a link, and from another place.
TEST(Location, FindsTheFilesOfItsBundle) {
  const std::string program = fs::read_symlink("/proc/self/exe");
  for (const auto &[tag, levels] : {std::pair{"lumenClient-daemon", 3},
                                    {"lumenClient-opener", 3},
                                    {"lumen-remotedisplay-bundle", 6}}) {
    InChild([&, tag = tag, levels = levels] {
      Location_Init(tag);
      const std::string root = Owned(LocationGetRoot("rootDir"));
      ASSERT_TRUE(program.starts_with(root + "/")) << root;
      EXPECT_EQ(levels, std::count(program.begin() + std::ssize(root), program.end(), '/')) << root;
      EXPECT_EQ(root + "/Contents/Library/kexts/zioplug.kext",
                Owned(LocationGetRoot("usbarbKext")));
      EXPECT_EQ(nullptr, LocationGetRoot("RootDir"));
    });
  }
}

TEST(Location, ASetUserIdProcessMustDeclareItselfOnce) {
  RUN_AS_ROOT();
  InChild([] {
    ASSERT_EQ(0, setreuid(65534, 0));
    const std::string refusal =
        "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n";
    const std::string invalid = "Warning: Location_Init: Invalid initialization: sUpCount ";
    const auto refused = [] { EXPECT_EQ(nullptr, LocationGetRoot("rootDir")); };
    EXPECT_EQ(refusal, LogOf(refused));
    Location_Init("lumenClient-opener");
    EXPECT_NE(nullptr, HeapStr(LocationGetRoot("rootDir")));
    EXPECT_EQ(invalid + "3, processTag lumen-remotedisplay-bundle.\n",
              LogOf([] { Location_Init("lumen-remotedisplay-bundle"); }));
    EXPECT_EQ(invalid + "6, processTag Unknown.\n", LogOf([] { Location_Init("Unknown"); }));
    EXPECT_EQ(refusal, LogOf(refused));
  });
}

// ---- the one-byte protocol --------------------------------------------------------------------

struct Wire : testing::Test {
  Fd a, b;
  Wire() {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    a.Reset(ends[0]);
    b.Reset(ends[1]);
  }
  // The log of a procedure that must fail.
  static std::string Failure(const std::function<bool()> &procedure) {
    return LogOf([&] { EXPECT_FALSE(procedure()); });
  }
};

TEST_F(Wire, TakesExactlyOneDescriptorAndClosesOthers) {
  for (const size_t count : {0U, 1U, 2U, 20U}) {
    SendFds(a, "\xe7", STDIN_FILENO, count);
    const size_t before = OpenDescriptors();
    int received = -1;
    const auto receive = [&] { return ServiceImplRecvFd(b.Get(), &received); };
    if (count == 1) {
      EXPECT_TRUE(receive());
      EXPECT_EQ('\xe7', ServiceImplExchangeByte());
      Fd(received).Reset();
    } else {
      EXPECT_EQ("Warning: ServiceImplRecvFd: Unexpected message.\n", Failure(receive));
    }
    EXPECT_EQ(before, OpenDescriptors()) << count;
  }
}

TEST_F(Wire, SaysNothingOfAPeerThatHasGone) {
  int fd;
  signal(SIGPIPE, SIG_IGN);
  ASSERT_EQ(1, write(b.Get(), "x", 1));
  a.Reset();  // with a byte unread: Linux resets the connection
  EXPECT_EQ("", Failure([&] { return ServiceImplRecvFd(b.Get(), &fd); }));
  EXPECT_EQ("", Failure([&] { return ServiceImplWriteOne(b.Get(), '1'); }));
  signal(SIGPIPE, SIG_DFL);  // would end the test
  EXPECT_EQ("", Failure([&] { return ServiceImplSendFd(b.Get(), STDIN_FILENO); }));
}

}  // namespace

extern "C" int __wrap_gettimeofday(timeval *time, void * /*zone*/) {
  *time = {1709609822, 45999};
  return 0;
}
