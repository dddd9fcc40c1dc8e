// main.cpp -- lumenClient-opener: delivers one descriptor to the service daemon.
//
//   lumenClient-opener FD    hands over the open descriptor FD and exits: 0 delivered, 1 not
//   lumenClient-opener       hands over one end of a pipe and stays until it is killed
//
// The program is installed set-user-ID root and started by anybody, with any environment, limits,
// signal dispositions and descriptors.  FillStandardDescriptors sees to it that no socket or lock
// file gets the number of the log, IgnoreWriteSignals that a log which cannot be written costs its
// records and nothing else.
//
// Privileges: effective user 0 up to ServiceImpl_PrivLower; from there the caller's, but for the
// brackets in serviceImpl.cpp and staging.cpp.

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

// The daemon that the bundle carries must be root's before anything else happens.
bool BundleDaemonIsRootOwned() {
  const HeapStr path(LocationGetRoot("serviceDaemonFile"));
  return path != nullptr && CheckRootOwned(path.get()) == 0;
}

// The daemon is started from the root-owned staging tree, never from the bundle.
char *StagedDaemonPath() {
  return Str_Asprintf(nullptr, "%s%s%s", Location_GetInstallRoot(), kServicesFolder,
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
