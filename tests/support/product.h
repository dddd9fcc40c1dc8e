// product.h -- the product installed in a sandbox, ready to run.
//
// CTest names in the environment the build folder, LUMEN_BUILD, and the folder of the scripts makeAuthority,
// makeBundle and probeDaemon, LUMEN_SUPPORT.
#pragma once

#include "tests/support/process.h"
#include "tests/support/test.h"

inline constexpr char kSandboxMark[] = "/.lumen-sandbox";
inline const std::string kSocketPath = "/var/run/Zephrin Lumen Client Services.sock";
inline const std::string kLockPath = "/var/run/Zephrin Lumen Client Services.lock";
inline const std::string kStartLockPath = kLockPath + ".start";
inline const std::string kServiceLogPath = "/var/run/Zephrin Lumen Client Services.log";
inline const std::string kBundle = "/Applications/Zephrin Lumen Client.app";
inline const std::string kBundleLibrary = kBundle + "/Contents/Library";
inline const std::string kOpenerPath = kBundleLibrary + "/lumenClient-opener";
inline const std::string kDaemonName = "Zephrin Lumen Client Services";
inline const std::string kBundleDaemon = kBundleLibrary + "/" + kDaemonName;
// Where the bundle is copied from for each test.
inline const std::string kTemplate = "/run/bundle";
inline const std::string kInstallParent = "/Library/Application Support/Zephrin";
inline const std::string kInstallRoot = kInstallParent + "/Zephrin Calder Lumen";
inline const std::string kStaged = kInstallRoot + "/Services";
inline const std::string kStagedDaemon = kStaged + "/Contents/Library/" + kDaemonName;
inline const std::string kProbeReport = "/var/run/probe.report";  // of probeDaemon
inline constexpr uid_t kUser = 12345;

// Runs shell commands as root in the folder of the bundle's daemon.  They may use
//   sign IDENTIFIER PATH [SIGNER]   signs an item, in the name of a signer of makeAuthority
//   $daemon, $root, $anchors        kDaemonName; the install root; the file of trusted anchors
void Shell(const std::string &commands);

// Runs them as the user, with nothing to use but programs.
void ShellAsUser(const std::string &commands);

// As the installer does: the bundle in its place, as it was made, the folder that the install root is
// made in, and this machine's trust in the signer.
void InstallBundle();

// Makes the probe the bundle's daemon, signed.
void InstallProbe();

// Makes another build of the opener, a program of tests/system, the bundle's.
void InstallOpener(const std::string &program);

// The processes of the staged daemon; ending them all.
std::vector<pid_t> Services();
void StopServices();

// The log of the reference service, without time stamps; and the line in it that tells of the end
// of a delivered descriptor which held `content`, without its beginning "#N: ".
std::string ServiceLog();
std::string EndRecord(const std::string &content);
bool ServiceRead(const std::string &content);

// Whether `text` comes into the log before long; how often `part` stands in `text`.
bool ServiceLogged(const std::string &text);
size_t Count(const std::string &text, const std::string &part);

// How to run the opener as an ordinary user.  A file is open in it as descriptor `number`, which is
// its argument; `adjust` is done last.
Launch OpenerLaunch(
    Fd file = Fd(), const std::function<void()> &adjust = [] {}, int number = 7);

// Runs it to its end.
struct Outcome {
  int status;
  std::string records;  // what it logged, without time stamps and the lines that every start has
  bool operator==(const Outcome &) const = default;
};
inline const Outcome kDelivered = {0, ""};
Outcome OutcomeOf(const Launch &launch);
Outcome Finish(Process *process);
std::ostream &operator<<(std::ostream &out, const Outcome &outcome);

// Starts each test with the product freshly installed, no service, no socket, no lock, no log.
class ProductTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 public:
  // As at the beginning of the test, within it.
  static void Reset();
};
