// programChecks.cpp -- the opener as users run it.
// Tests: tests/system/check_test.cpp

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "checker/checks.h"
#include "opener/location.h"
#include "opener/stagingPlan.h"
#include "opener/startup.h"
#include "platform/mountPoint.h"

namespace {

// Whether only root can have made this file what it is: nobody else may write to it or exchange it.
bool IsOutOfReach(const char *path, const struct stat &file) {
  bool mine = IsRootsAlone(file);
  HeapStr folder = Heap_SafeStrdup(path);
  for (char *slash; mine && (slash = strrchr(folder.get(), '/')) != nullptr;) {
    *slash = '\0';
    struct stat info;
    mine = stat(slash == folder.get() ? "/" : folder.get(), &info) == 0 && IsRootsAlone(info);
  }
  return mine;
}

// No command is printed that would give root's rights to a program that somebody else may have put in the
// opener's place.
void FailSetUserId(const char *opener, const struct stat &info, HeapStr detail, Report *report) {
  if (IsOutOfReach(opener, info)) {
    report->Fail("opener", detail, OwnCommand("4755", opener));
  } else {
    report->Fail("opener",
                 Text("%s; others than root may have changed it: install it again", detail.get()),
                 nullptr);
  }
}

void CheckSetUserId(const char *opener, const struct stat &info, Report *report) {
  constexpr mode_t kNeeded = S_ISUID | S_IXUSR | S_IXGRP | S_IXOTH;
  if (!S_ISREG(info.st_mode)) {
    report->Fail("opener", Text("%s is not a regular file", opener), nullptr);
  } else if (info.st_uid != 0) {
    FailSetUserId(opener, info, PathAndOwner(opener, info.st_uid, info.st_gid), report);
  } else if ((info.st_mode & kNeeded) != kNeeded) {
    FailSetUserId(opener, info,
                  Text("%s has mode %o, and is to be set-user-ID and executable for all", opener,
                       static_cast<unsigned>(info.st_mode & ALLPERMS)),
                  report);
  } else {
    report->Ok("opener", Text("%s is set-user-ID root", opener));
  }
}

// Every user must be able to get to the program.
void CheckWay(const char *opener, Report *report) {
  HeapStr folder = Heap_SafeStrdup(opener);
  for (char *slash = strrchr(folder.get(), '/'); slash != folder.get() && slash != nullptr;
       slash = strrchr(folder.get(), '/')) {
    *slash = '\0';
    struct stat info;
    if (stat(folder.get(), &info) != 0) {
      report->Unknown("way", PathAndError(folder.get(), errno), nullptr);
      return;
    }
    if ((info.st_mode & S_IXOTH) == 0) {
      report->Fail("way", Text("%s is closed to other users", folder.get()),
                   CommandFor("chmod o+x %s", folder.get()));
      return;
    }
  }
  report->Ok("way", Text("every user gets to it"));
}

void CheckMount(const char *opener, Report *report) {
  struct statvfs mounted;
  if (statvfs(opener, &mounted) != 0) {
    report->Unknown("mount", PathAndError(opener, errno), nullptr);
  } else if ((mounted.f_flag & ST_NOSUID) != 0) {
    report->Fail("mount", Text("its file system is mounted nosuid: the program never becomes root"),
                 RemountCommand("suid", opener));
  } else if (Platform_IsMountedNoexec(opener)) {
    report->Fail("mount", Text("its file system is mounted noexec: the program cannot be run"),
                 RemountCommand("exec", opener));
  } else {
    report->Ok("mount", Text("its file system lets it become root"));
  }
}

void CheckDaemonOwner(const char *bundle, Report *report) {
  const HeapStr daemon = Text("%s%s", bundle, LocationGetRelative("serviceDaemonFile"));
  struct stat info;
  if (stat(daemon.get(), &info) != 0) {
    const int error = errno;
    if (error == EACCES) {
      report->Unknown("daemon", PathAndError(daemon.get(), error), nullptr);
    } else {
      report->Fail("daemon", PathAndError(daemon.get(), error), nullptr);
    }
  } else if (CheckRootOwned(daemon.get()) != 0) {
    report->Fail("daemon", PathAndOwner(daemon.get(), info.st_uid, info.st_gid),
                 ItemOwnerCommand(daemon.get()));
  } else {
    report->Ok("daemon", Text("%s is root's", daemon.get()));
  }
}

}  // namespace

void CheckProgram(const CheckSubject &subject, Report *report) {
  struct stat info;
  if (stat(subject.opener, &info) != 0) {
    report->Fail("opener", PathAndError(subject.opener, errno), nullptr);
    return;
  }
  CheckSetUserId(subject.opener, info, report);
  CheckWay(subject.opener, report);
  CheckMount(subject.opener, report);
  CheckDaemonOwner(subject.bundle, report);
}
