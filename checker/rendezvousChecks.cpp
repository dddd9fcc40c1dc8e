// rendezvousChecks.cpp -- the folder where openers and the daemon meet, the locks, the listener.
// Tests: tests/system/check_test.cpp
//
// The locks are taken for a moment, without waiting, and the listener is asked by a connection that
// goes no further than its greeting: an opener that comes in between begins again or waits, as with
// another opener.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "checker/checks.h"
#include "lib/public/err.h"
#include "lib/public/fd.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/str.h"
#include "opener/rendezvousPlaces.h"
#include "opener/stagingPlan.h"
#include "platform/files.h"
#include "platform/mendingCommand.h"
#include "platform/peerProcess.h"
#include "platform/unixSocket.h"

namespace {

constexpr char kFolder[] = "/var/run";
// An opener holds the lock for microseconds; the start lock while it copies.
constexpr int64_t kLockPatienceMs = 2000;
constexpr int kGreetingPatienceMs = 3000;

void CheckFolder(Report *report) {
  struct stat info;
  struct statvfs mounted;
  if (stat(kFolder, &info) != 0 || statvfs(kFolder, &mounted) != 0) {
    report->Fail("run", PathAndError(kFolder, errno), CommandFor("mkdir -m 755 %s", kFolder));
  } else if (!S_ISDIR(info.st_mode)) {
    report->Fail("run", Text("%s is not a folder", kFolder), nullptr);
  } else if (!IsRootsAlone(info)) {
    report->Fail("run", Text("%s is not root's alone", kFolder), OwnCommand("go-w", kFolder));
  } else if ((mounted.f_flag & ST_RDONLY) != 0) {
    report->Fail("run", Text("%s cannot be written to", kFolder), RemountCommand("rw", kFolder));
  } else {
    report->Ok("run", Text("%s is root's alone", kFolder));
  }
}

// 0 when the lock is free or has no file yet, otherwise the errno.
int TryLock(const char *path) {
  const int64_t end = MonotonicClock_Ms() + kLockPatienceMs;
  for (;;) {
    const Fd lock(Platform_OpenLocked(path, O_NONBLOCK, 0));
    if (lock || errno == ENOENT) return 0;
    if (errno != EAGAIN || MonotonicClock_Ms() >= end) return errno;
    poll(nullptr, 0, 20);
  }
}

void CheckLock(const char *check, const char *path, bool isRoot, Report *report) {
  struct stat info;
  const bool exists = lstat(path, &info) == 0;
  if (exists && !S_ISREG(info.st_mode)) {
    report->Fail(check, Text("%s is not a regular file", path), CommandFor("rm -r %s", path));
    return;
  }
  if (!isRoot) {
    report->Unknown(check, Text("only root can see whether %s is taken", path), nullptr);
    return;
  }
  const int error = TryLock(path);
  if (error == EAGAIN) {
    report->Fail(check, Text("another process keeps %s", path),
                 CommandFor(Platform_HoldersCommand(), path));
  } else if (error != 0) {
    report->Fail(check, PathAndError(path, error), nullptr);
  } else if (exists && (info.st_uid != 0 || (info.st_mode & (S_IRWXG | S_IRWXO)) != 0)) {
    report->Fail(check, Text("others than root may open %s, and so keep it", path),
                 OwnCommand("600", path));
  } else {
    report->Ok(check, Text("%s is free", path));
  }
}

// After a connection: whether the listener greets.
void CheckGreeting(int sock, Report *report) {
  pid_t pid = 0;
  const bool isKnown = Platform_PeerProcess(sock, &pid);
  const HeapStr who = isKnown ? Text("process %d", static_cast<int>(pid)) : Text("a process");
  pollfd one = {sock, POLLIN, 0};
  const int ready = poll(&one, 1, kGreetingPatienceMs);
  char greeting;
  if (ready > 0 && Platform_Read(sock, &greeting, 1) == 1) {
    report->Ok("listener", Text("%s listens and accepts", who.get()));
    return;
  }
  // Not by the number: the process that called listen(2) may have passed the socket on and ended.
  const HeapStr mend = CommandFor(Platform_EndListenersCommand(), kServiceSocketPath);
  report->Fail("listener",
               ready == 0 ? Text("%s listens, but has accepted nothing for %d s", who.get(),
                                 kGreetingPatienceMs / 1000)
                          : Text("%s listens, but sends no greeting", who.get()),
               mend);
}

void CheckListener(bool isRoot, Report *report) {
  struct stat info;
  if (lstat(kServiceSocketPath, &info) == 0 && S_ISDIR(info.st_mode)) {
    report->Fail("listener", Text("%s is a folder", kServiceSocketPath),
                 CommandFor("rm -r %s", kServiceSocketPath));
    return;
  }
  if (!isRoot) {
    report->Unknown("listener", Text("only root can see who listens at %s", kServiceSocketPath),
                    nullptr);
    return;
  }
  sockaddr_un address;
  Platform_InitUnixAddress(&address, strlen(kServiceSocketPath));
  Str_Strcpy(address.sun_path, kServiceSocketPath, sizeof address.sun_path);
  const Fd sock(socket(AF_UNIX, SOCK_STREAM, 0));
  // A full queue is to be an answer, not a wait.
  if (!sock || fcntl(sock.Get(), F_SETFL, O_NONBLOCK) != 0) {
    report->Unknown("listener", PathAndError("socket", errno), nullptr);
  } else if (connect(sock.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
             0) {
    CheckGreeting(sock.Get(), report);
  } else if (errno == ENOENT || errno == ECONNREFUSED) {
    report->Ok("listener", Text("nobody listens: the next hand-off starts the daemon"));
  } else if (errno == EAGAIN) {
    report->Fail("listener", Text("the daemon's queue is full, and it accepts nothing"),
                 CommandFor(Platform_EndListenersCommand(), kServiceSocketPath));
  } else {
    report->Fail("listener", PathAndError(kServiceSocketPath, errno),
                 CommandFor("rm -r %s", kServiceSocketPath));
  }
}

}  // namespace

void CheckRendezvous(const CheckSubject &subject, Report *report) {
  CheckFolder(report);
  CheckLock("lock", kServiceLockPath, subject.isRoot, report);
  CheckListener(subject.isRoot, report);
  const HeapStr startLock = Text("%s.start", kServiceLockPath);
  CheckLock("start-lock", startLock.get(), subject.isRoot, report);
}
