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
// The bundle that is copied for each test.
inline const std::string kTemplate = "/run/bundle";
inline const std::string kInstallParent = "/Library/Application Support/Zephrin";
inline const std::string kInstallRoot = kInstallParent + "/Zephrin Calder Lumen";
inline const std::string kStaged = kInstallRoot + "/Services";
inline const std::string kStagedDaemon = kStaged + "/Contents/Library/" + kDaemonName;
inline const std::string kProbeReport = "/var/run/probe.report";  // of probeDaemon
inline constexpr uid_t kUser = 12345;

// Runs shell commands as root in the folder of the bundle's daemon.  They may use
//   sign IDENTIFIER PATH [SIGNER]   signs an item, as one of the signers of makeAuthority
//   $daemon, $root, $anchors        kDaemonName; the install root; the file of trusted anchors
void Shell(const std::string &commands);

// Runs shell commands as the user, without the above.
void ShellAsUser(const std::string &commands);

// Does what the installer does: a fresh bundle in its place, the folder in which the install root is
// made, and the anchors that make this machine trust the signer.
void InstallBundle();

// Makes probeDaemon, signed, the bundle's daemon.
void InstallProbe();

// Makes another build of the opener, made by tests/system, the bundle's.
void InstallOpener(const std::string &program);

// The processes that run the staged daemon; kills all of them.
std::vector<pid_t> Services();
void StopServices();

// How often `part` occurs in `text`.
size_t Count(const std::string &text, const std::string &part);

// The log of the reference service, without time stamps; whether `text` appears in it before long.
std::string ServiceLog();
inline bool ServiceLogged(const std::string &text) {
  return Eventually([&] { return Count(ServiceLog(), text) > 0; });
}

// The record, without the "#N" at its beginning, that the end of a delivered descriptor with this content
// leaves in that log; whether it appears before long.
std::string EndRecord(const std::string &content);
inline bool ServiceRead(const std::string &content) {
  return ServiceLogged(EndRecord(content));
}

// How to run the opener as an ordinary user.  If there is a file, it is open as descriptor `number`,
// which is the argument.  `adjust` runs last.
Launch OpenerLaunch(
    Fd file = Fd(), const std::function<void()> &adjust = [] {}, int number = 7);

// How it ended.
struct Outcome {
  int status;
  std::string records;  // its log, without time stamps and the records of every start
  bool operator==(const Outcome &) const = default;
};
inline const Outcome kDelivered = {0, ""};
Outcome OutcomeOf(const Launch &launch);
Outcome Finish(Process *process);
std::ostream &operator<<(std::ostream &out, const Outcome &outcome);

// Each test starts with the product freshly installed, without service, socket, locks and log.
class ProductTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 public:
  // Restores that state within a test.
  static void Reset();
};
