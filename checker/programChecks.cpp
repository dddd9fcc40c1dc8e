// programChecks.cpp -- the opener as users run it.
// Tested by tests/system/check_test.cpp.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "checker/checks.h"
#include "opener/location.h"
#include "opener/startup.h"

namespace {

void CheckSetUserId(const char *opener, const struct stat &info, Report *report) {
  constexpr mode_t kNeeded = S_ISUID | S_IXUSR | S_IXGRP | S_IXOTH;
  if (!S_ISREG(info.st_mode)) {
    report->Fail("opener", Text("%s is not a regular file", opener), nullptr);
  } else if (info.st_uid != 0) {
    report->Fail("opener", PathAndOwner(opener, info.st_uid, info.st_gid),
                 OwnCommand("4755", opener));
  } else if ((info.st_mode & kNeeded) != kNeeded) {
    report->Fail("opener",
                 Text("%s has mode %o, and is to be set-user-ID and executable for all", opener,
                      static_cast<unsigned>(info.st_mode & ALLPERMS)),
                 OwnCommand("4755", opener));
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
  } else if (access(opener, X_OK) != 0) {
    report->Fail("mount", PathAndError(opener, errno), RemountCommand("exec", opener));
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
                 CommandFor("chown 0:0 %s", daemon.get()));
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
