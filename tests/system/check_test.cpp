// check_test.cpp -- lumen-opener-check finds what keeps the opener from working, and the command that
// it prints mends it.

#include <regex>

#include "tests/support/product.h"

namespace {

// A copy: the folders above the build's may be closed to other users.
const std::string kChecker = "/run/lumen-opener-check";

struct Verdict {
  int status;
  std::string output;
};

Verdict Check(std::vector<std::string> arguments, uid_t user = 0, const std::string &setUp = ":") {
  arguments.insert(arguments.begin(), {"/bin/bash", "-c", setUp + R"(; exec "$0" "$@")", kChecker});
  arguments.push_back(kOpenerPath);
  Process process({arguments, user, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}});
  const int status = process.Wait();
  return {status, process.Output()};
}

// The command below the line of the check that fails; "none" for a line without, empty when there is
// no such line.
std::string MendOf(const std::string &check, const std::string &output) {
  std::smatch found;
  const std::regex line("FAIL  " + check + ": [^\n]*\n( {10}([^\n]*)\n)?");
  if (!std::regex_search(output, found, line)) return "";
  return found[2].matched ? found[2].str() : "none";
}

// What the operator fills in.
std::string Filled(std::string command) {
  for (const auto &[word, value] :
       std::map<std::string, std::string>{{"KEY.pem", "$authority/valid.key"},
                                          {"CERT.pem", "$authority/valid.pem"},
                                          {"ANCHORS.pem", "$authority/root.pem"},
                                          {"codeseal ", "\"$LUMEN_BUILD/tools/codeseal\" "}}) {
    const size_t at = command.find(word);
    if (at != command.npos) command.replace(at, word.size(), value);
  }
  return command;
}

struct Fault {
  std::string damage;
  std::string check;        // the one that fails
  std::string repair = {};  // in place of the printed command, where that only looks
  bool isFatal = true;      // or it merely lets others interfere
};

const std::string kParent = "\"${root%/*}\"";

// In the opener's order.
const std::vector<Fault> kFaults = {
    {"chmod 755 lumenClient-opener", "opener"},
    {"chmod 700 \"$app\"", "way"},
    {"mount --bind \"$app\" \"$app\"; mount -o remount,bind,nosuid \"$app\"", "mount"},
    {"chown 12345:12345 \"$daemon\"", "daemon"},
    {"chmod 777 /run", "run", {}, false},
    {"install -m 666 /dev/null '/var/run/Zephrin Lumen Client Services.lock'", "lock", {}, false},
    {"mkdir '/var/run/Zephrin Lumen Client Services.lock'", "lock"},
    {"mkdir '/var/run/Zephrin Lumen Client Services.sock'", "listener"},
    {"mkdir '/var/run/Zephrin Lumen Client Services.lock.start'", "start-lock"},
    {"rm -r " + kParent, "install-parent"},
    {"rm -r " + kParent + "; ln -s /tmp " + kParent, "install-parent"},
    {"chmod 777 " + kParent, "install-parent"},
    {"mount -t tmpfs -o mode=755,noexec none " + kParent, "install-parent"},
    {"mount -t tmpfs -o mode=755,ro none " + kParent, "install-parent"},
    {"mkdir -m 775 \"$root\"", "install-root"},
    {"ln -s /tmp \"$root\"", "install-root"},
    {"rm \"$anchors\"", "trust"},
    {"chown 12345 \"$anchors\"; chmod 777 /etc", "trust"},
    {"cp productInfo other; mv other productInfo", "productInfo"},
    {"chown 12345 services.sh", "serviceScriptFile"},
    {"echo more >>zephrin-usbarbitrator", "usbarbFile"},
    {"touch kexts/zioplug.kext/Contents/new", "usbarbKext"},
    {"mount -t tmpfs -o mode=755,size=64k none " + kParent, "room", "cd /; umount " + kParent},
};

class CheckTest : public ProductTest {
 protected:
  void SetUp() override {
    ProductTest::SetUp();
    Shell("install -m 755 \"$LUMEN_BUILD/checker/lumen-opener-check\" " + kChecker);
  }
  void TearDown() override {
    Shell("cd /; umount \"$app\" 2>/dev/null || :; umount " + kParent + " 2>/dev/null || :");
    ProductTest::TearDown();
  }
};

TEST_F(CheckTest, EveryFaultIsFoundAndMendedByTheCommandThatIsPrinted) {
  for (const Fault &fault : kFaults) {
    SCOPED_TRACE(fault.damage);
    Shell(fault.damage);
    EXPECT_EQ(fault.isFatal, OutcomeOf(OpenerLaunch(FileWith("x"))).status != 0);
    const Verdict found = Check({});
    EXPECT_EQ(1, found.status);
    const std::string mend = MendOf(fault.check, found.output);
    ASSERT_NE("", mend) << found.output;
    Shell(fault.repair.empty() ? Filled(mend) : fault.repair);
    const Verdict mended = Check({});
    EXPECT_EQ(0, mended.status) << mended.output;
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("x"))));
    TearDown();
    Reset();
  }
}

// A daemon that listens and accepts nothing holds up every opener.
TEST_F(CheckTest, ADaemonThatAcceptsNothingIsFoundAndNamed) {
  Process daemon({{"/usr/bin/python3", "-c",
                   "import socket, time; s = socket.socket(socket.AF_UNIX); s.bind('" +
                       kSocketPath + "'); s.listen(8); time.sleep(600)"}});
  ASSERT_TRUE(Eventually([&] { return fs::exists(kSocketPath); }));
  const std::string output = Check({}).output;
  EXPECT_NE(output.npos, output.find("process " + std::to_string(daemon.Pid()) + " listens"));
  Shell(MendOf("listener", output));
  EXPECT_NE(0, daemon.Wait());
}

// A user who can exchange it may have put a shell in its place.
TEST_F(CheckTest, NoCommandGivesAProgramOfOthersRootsRights) {
  Shell("chown 12345 .; chmod 755 lumenClient-opener");
  EXPECT_EQ("none", MendOf("opener", Check({}).output));
}

TEST_F(CheckTest, ALockThatIsKeptAndLimitsThatAreTooLowAreFound) {
  Process holder({{"/usr/bin/flock", kLockPath, "/bin/sleep", "60"}});
  ASSERT_TRUE(Eventually([&] { return fs::exists(kLockPath); }));
  const std::string output = Check({}, 0, "ulimit -f 100").output;
  EXPECT_EQ("fuser -v '" + kLockPath + "'", MendOf("lock", output));
  EXPECT_EQ("ulimit -f unlimited", MendOf("limits", output));
}

TEST_F(CheckTest, StatusesAndForms) {
  EXPECT_EQ(0, Check({}).status);
  // Who is not root learns what anybody may know.
  const Verdict user = Check({}, kUser);
  EXPECT_EQ(2, user.status);
  EXPECT_EQ("", MendOf(".*", user.output));
  EXPECT_NE(user.output.npos, user.output.find("\n?     listener: "));
  // The running service is asked, and is none the worse for it.
  ASSERT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("x"))));
  EXPECT_NE(std::string::npos, Check({}).output.find(" listens and accepts\n"));
  ASSERT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("y"))));

  for (const char *wrong : {"--nothing", "another"}) EXPECT_EQ(2, Check({wrong}).status);
  EXPECT_EQ(0, Check({"--help"}).status);
  EXPECT_EQ(2, Check({"--json"}, 0, "exec >/dev/full").status);
  EXPECT_EQ(2, Check({"--version"}, 0, "exec >/dev/full").status);
}

// A path may hold anything.
TEST_F(CheckTest, NothingFromAPathReachesATerminalOrBreaksJson) {
  const std::string folder = R"(folder=$(printf '/run/a\033[2J"\\\377'); )";
  const std::string opener = "\"$folder/b/c/opener\"";
  const std::string checker = "'" + kChecker + "' ";
  Shell(folder + "mkdir -p \"$folder/b/c\"; cp lumenClient-opener " + opener);
  Shell(folder + "! " + checker + opener + R"( | LC_ALL=C grep -aP '[\x1B\xFF]')");
  Shell(folder + checker + "--json " + opener +
        " >/run/json || :; python3 -m json.tool /run/json >/run/pretty");
}

}  // namespace
