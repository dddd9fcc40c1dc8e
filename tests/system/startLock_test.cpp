// startLock_test.cpp -- where a full queue is refused as if nobody listened (macOS): an attack between the
// check of the staged daemon and its execution, and a daemon that is slow to accept.

#include <sys/inotify.h>
#include <sys/socket.h>

#include "tests/support/peer.h"
#include "tests/support/trace.h"

namespace {

// Written by the changed daemon if it ever runs.
const std::string kMark = "/run/unverified";

class StartLock : public ProductTest {
 protected:
  // An opener that is refused as on macOS, and a daemon that root lets everybody write to.
  static void Install() {
    Reset();
    InstallOpener("refusedOpener");
    Shell("chmod 666 \"$daemon\"; rm -f /run/patient " + kMark);
  }
  // In place, so that the open file which root has checked changes.
  static void ChangeDaemon() {
    ShellAsUser("printf '#!/bin/sh -p\\nid -u >" + kMark + "\\nexit\\n' | dd of='" + kDaemonName +
                "' conv=notrunc");
  }
};

TEST_F(StartLock, KeepsASecondOpenerFromStagingUntilTheFirstHasStartedItsDaemon) {
  for (int round = 0; round < 20 * Rounds(); round++) {
    Install();
    StoppedOpener first("chdir", "/");
    ASSERT_TRUE(first.AwaitStop());
    Fd queued = ConnectTo(kSocketPath);
    const Watch startLock({kStartLockPath}, IN_CLOSE);
    StoppedOpener second("openat", kStagedDaemon);
    // The second opener has found it taken twice.
    ASSERT_TRUE(startLock.Await() && startLock.Await());
    ChangeDaemon();
    EXPECT_TRUE(second.Stops().empty());
    queued.Reset();
    Shell("touch /run/patient");
    EXPECT_EQ(0, first.ContinueToEnd().status);
    EXPECT_EQ(0, second.ContinueToEnd().status);
    EXPECT_TRUE(second.Stops().empty());
    EXPECT_FALSE(fs::exists(kMark));
    EXPECT_EQ(1U, Services().size());
    EXPECT_TRUE(Eventually([] { return Count(ServiceLog(), EndRecord("traced")) == 2; }));
  }
}

TEST_F(StartLock, ADaemonThatIsSlowToAcceptIsNotReplaced) {
  Install();
  const Fd listener = ListenAt(kSocketPath);
  ASSERT_EQ(0, listen(listener.Get(), 0));
  const Fd queued = ConnectTo(kSocketPath);
  Shell("touch '" + kStartLockPath + "'");
  const Watch startLock({kStartLockPath}, IN_OPEN);
  Process opener(OpenerLaunch(FileWith("")));
  // The opener has been refused.
  ASSERT_TRUE(startLock.Await());
  Accept(listener);
  const Fd connection = Accept(listener);
  Say(connection, 'g');
  EXPECT_TRUE(Receive(connection).fd);
  Say(connection, '1');
  EXPECT_EQ(kDelivered, Finish(&opener));
  EXPECT_FALSE(fs::exists(kStaged));
}

}  // namespace
