// main.cpp -- lumenClient-opener: delivers one descriptor to the service daemon.
//
//   lumenClient-opener FD    hands over the open descriptor FD and exits: 0 if delivered, 1 if not
//   lumenClient-opener       hands over one end of a pipe and stays until it is killed
//
// The program is installed set-user-ID root and may be started by any user with any environment,
// limits, signal dispositions and descriptors.  FillStandardDescriptors makes sure that no socket or
// lock file is opened as descriptor 0, 1 or 2; IgnoreWriteSignals makes sure that losing the log costs
// only log records.
//
// Privileges: effective user 0 up to ServiceImpl_PrivLower; after that the caller's, except inside
// ServiceImplWithPrivileges.
// Tests: tests/system/

#include <sys/stat.h>

#include <cstdlib>

#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/str.h"
#include "opener/location.h"
#include "opener/rendezvousPlaces.h"
#include "opener/serviceImpl.h"
#include "opener/staging.h"
#include "opener/stagingPlan.h"
#include "opener/startup.h"

namespace {

// Checked before anything else: the daemon in the bundle must belong to root.
bool BundleDaemonIsRootOwned() {
  const HeapStr path(LocationGetRoot("serviceDaemonFile"));
  return path != nullptr && CheckRootOwned(path.get()) == 0;
}

// The daemon is started from the root-owned staging tree, never from the bundle.
char *StagedDaemonPath() {
  return Str_Asprintf(nullptr, "%s/%s%s", Location_GetInstallRoot(), kServicesDir,
                      LocationGetRelative("serviceDaemonFile"));
}

}  // namespace

int main(int argc, char *argv[]) {
  ScrubEnvironment();
  FillStandardDescriptors();
  IgnoreWriteSignals();
  Location_Init("lumenClient-opener");
  if (!BundleDaemonIsRootOwned()) return EXIT_FAILURE;

  if (!ServiceImpl_PrivLower()) return EXIT_FAILURE;
  umask(022);

  const HeapStr daemonPath(StagedDaemonPath());
  if (daemonPath == nullptr) {
    Warning("%s: No new daemon path.\n", "main");
    return EXIT_FAILURE;
  }
  ServiceImpl_SetPreStartHook(constructWorkingDir);
  return ServiceImpl_Opener(argc, argv, 2, kServiceLockPath, kServiceSocketPath, daemonPath.get());
}
