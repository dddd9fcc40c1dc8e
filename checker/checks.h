// checks.h -- the preconditions of a hand-off, in the order in which the opener depends on them.
//
// Nothing is changed.  What only root may see is reported as unknown to others.
#pragma once

#include "checker/report.h"

struct CheckSubject {
  const char *opener;  // the program, all links resolved
  const char *bundle;  // the bundle's root, three levels above it
  bool isRoot;         // the checks run as root
};

// programChecks.cpp: that users can run the program, that it becomes root, and that the bundle's daemon
// is root's.
void CheckProgram(const CheckSubject &subject, Report *report);

// rendezvousChecks.cpp: where openers meet, the locks, and who listens.
void CheckRendezvous(const CheckSubject &subject, Report *report);

// stagingChecks.cpp: what is copied, with its signatures, and where to; room and limits for it.
void CheckStaging(const CheckSubject &subject, Report *report);

// ---- shared by them ----------------------------------------------------------------------------

// "PATH: the text of `error`"; and "PATH belongs to UID:GID".
[[nodiscard]] HeapStr PathAndError(const char *path, int error);
[[nodiscard]] HeapStr PathAndOwner(const char *path, unsigned user, unsigned group);

// A command with one quoted word in the place of %s.
[[nodiscard]] HeapStr CommandFor(const char *format, const char *path)
    __attribute__((format(printf, 1, 0)));

// The command that makes `path` root's, with the mode, as chmod(1) takes it.
[[nodiscard]] HeapStr OwnCommand(const char *mode, const char *path);

// The command that gives an item of the bundle to root; null for a link.  Never follows one: the owner of
// the bundle's folders may exchange the item before the command is run.
[[nodiscard]] HeapStr ItemOwnerCommand(const char *path);

// The command that mounts the file system of `path` anew with the option.
[[nodiscard]] HeapStr RemountCommand(const char *option, const char *path);
