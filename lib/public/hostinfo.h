// hostinfo.h -- the running program, the host it runs on, and starting a daemon on it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Flags of Hostinfo_Daemonize; 0 is a daemon in "/", in a session of its own, on /dev/null.
enum : int {
  HOSTINFO_DAEMONIZE_NOCHDIR = 1,  // stay in the caller's directory
  HOSTINFO_DAEMONIZE_NOCLOSE = 2,  // stay in the caller's session and keep 0, 1 and 2
  HOSTINFO_DAEMONIZE_EXIT = 4,     // on success the calling process ends with _exit(0)
  HOSTINFO_DAEMONIZE_LOCKPID = 8,  // the daemon holds a flock on the PID file while it lives
};

// Starts the program `path` (UTF-8) as a daemon, by double fork, and waits until exec has worked or
// failed.
//
//   argv         null-terminated, argv[0] included, UTF-8
//   flags        HOSTINFO_DAEMONIZE_*, combined by |
//   pidPath      null, or the file that receives the daemon's process id and a newline
//   keepFds      the open descriptors above 2 that the daemon inherits under the same numbers; all
//                others above 2 are closed.  In any order; repeated, negative or unused numbers do no
//                harm.  A close-on-exec descriptor stays open in the children until exec: a lock held
//                through it lasts for the start only.  May be null when numKeepFds is 0
//
// Returns true when the daemon's process got as far as exec and reported no failure.  Otherwise false
// with errno set: the errno of the step that failed, in this process or a child, or EINVAL when a child
// died before exec, the intermediate process failed, or a string is not UTF-8.  A process killed inside
// exec itself counts as started.  A PID file is removed again, unless it could not be opened or locked.
// Exhausted memory for the arguments is fatal.
//
// The daemon starts with the default action for all signals, none blocked, no interval timer, and its
// soft address-space limit raised to the hard one.  Failures are logged; the caller may log a child's
// failure again.  In the children, writing to a broken log or PID file is an error, never a signal; in
// its own process the caller has to see to that.  Call it from one thread at a time: while it runs, an
// ignored SIGCHLD has its default action.  The other threads of the process do not exist in the daemon.
[[nodiscard]] bool Hostinfo_Daemonize(const char *path, const char *const argv[], int flags,
                                      const char *pidPath, const int *keepFds, size_t numKeepFds);

// Sets the last step of the daemon's process before exec, after everything else that can fail; null,
// the initial value, for none.  It is for what must not happen any earlier, such as giving up a user id.
// Every later Hostinfo_Daemonize of the process runs the hook.
//
// The hook runs in a child of fork and may call only async-signal-safe functions and the log.  When it
// returns false, the start fails as if exec had failed, with the errno that the hook left (EINVAL if that
// is 0).  It must leave the descriptors as they are.  Not thread-safe.
using HostinfoPreExecHook = bool();
void Hostinfo_SetPreExecHook(HostinfoPreExecHook *hook);

// The absolute path of the running executable, as a new string that the caller frees.  Null, after a
// warning, when the host cannot tell it or it has 1024 bytes or more; null when it is not UTF-8.
// `privilege` is 0 or 1, which mean the same; any other value gives null after a warning.  Any thread.
[[nodiscard]] char *Hostinfo_GetModulePath(unsigned privilege);

// The node name of uname(2) as a new string that the caller frees; null when there is none or it is
// not UTF-8.  Any thread.
[[nodiscard]] char *Hostinfo_HostName();

// The host's identity, computed once per process: a hash of the host name, and the link-layer
// address of the first of the interfaces en0 to en7 that has one (in the first six bytes in memory;
// 0 when none has).  If the host cannot tell its name or its interfaces, that half is 0, after a
// warning.  Neither pointer is null.  Any thread.
void Hostinfo_MachineID(uint32_t *hostNameHash, uint64_t *hardwareID);

// Whether the process `pid` exists, as kill(2) tells: 1 when it does, also as a zombie or somebody
// else's; 0 when it does not; 2 when the host does not say.  errno is unchanged.  Any thread.
enum : int {
  HOSTINFO_PROCESS_DEAD = 0,
  HOSTINFO_PROCESS_EXISTS = 1,
  HOSTINFO_PROCESS_UNKNOWN = 2,
};
[[nodiscard]] int Hostinfo_ProcessState(pid_t pid);
