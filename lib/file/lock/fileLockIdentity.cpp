// fileLockIdentity.cpp -- how the records of a lock name machines, processes and directories.
//
// Idea:  a process is its number and the time it started, so that a later process with the same
//        number is not taken for it.  Only a process of this machine can be looked up; what numbers
//        and times mean differs between namespaces of a host, so each is a machine of its own.
// Invariants:
//        1. When in doubt, a process lives: to break the lock of a live one does harm, to wait for a
//           dead one does not.
//        2. The identity of this machine stays the same while the process runs.
//        3. What a process has found out about itself means nothing in its children, even in one
//           that has got the number of an ancestor.
// Tests: tests/unit/fileLock_test.cpp, tests/system/lockMachines_test

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/base64.h"
#include "lib/public/djb2.h"
#include "lib/public/fatal.h"
#include "lib/public/hostinfo.h"
#include "lib/public/log.h"
#include "lib/public/onceCell.h"
#include "lib/public/str.h"
#include "lib/public/uuid.h"
#include "platform/processStart.h"

namespace {

constexpr char kUuidPrefix[] = "uuid=";
constexpr size_t kPrefixLength = sizeof kUuidPrefix - 1;

struct MachineID {
  char text[96];
};

// The identity in one process; children of it may have earlier ones, to which somebody may still point.
struct Machine {
  const Machine *previous;
  uint64_t process;  // ProcessKey
  MachineID id;
};

struct IdentityState {
  OnceCell<MachineID> host;
  std::atomic<const Machine *> machine;
  std::atomic<uint64_t> startOf;  // ProcessKey of the one that `start` is of
  std::atomic<uint64_t> start;
  std::atomic<uint32_t> generation;  // how many forks have led here
  pthread_once_t watchForks = PTHREAD_ONCE_INIT;
};
constinit IdentityState state{};

// A value that neither parent nor child have, even where one has the other's number.  Never 0.
uint64_t ProcessKey(pid_t pid) {
  pthread_once(&state.watchForks, [] {
    // Without memory for this, numbers alone must do.
    static_cast<void>(pthread_atfork(nullptr, nullptr, [] { state.generation++; }));
  });
  return uint64_t{state.generation.load(std::memory_order_relaxed)} << 32 |
         static_cast<uint32_t>(pid);
}

void ReplaceAll(char *text, char from, char to) {
  for (; *text != '\0'; text++) {
    if (*text == from) *text = to;
  }
}

FileLockOldHost OwnOldHost() {
  uint32_t hostNameHash;
  uint64_t hardwareID;
  Hostinfo_MachineID(&hostNameHash, &hardwareID);
  FileLockOldHost host;
  memcpy(host.data(), &hostNameHash, sizeof hostNameHash);
  memcpy(host.data() + sizeof hostNameHash, &hardwareID, sizeof hardwareID);
  return host;
}

MachineID ComputeOldHostID() {
  const FileLockOldHost host = OwnOldHost();
  MachineID id{};
  if (!Base64_Encode(host.data(), host.size(), id.text, sizeof id.text, nullptr)) {
    Fatal_BufferTooSmall("lib/file/fileLockIdentity", 66);
  }
  ReplaceAll(id.text, '/', '-');
  return id;
}

MachineID ComputeHostID() {
  const char *const uuid = UUID_HostString();
  if (uuid == nullptr) return ComputeOldHostID();
  MachineID id{};
  Str_Sprintf(id.text, sizeof id.text, "uuid=%s", uuid);
  ReplaceAll(id.text, ' ', '-');
  return id;
}

// The host itself, or a namespace on it.
MachineID ComputeMachineID() {
  const PlatformProcessWorld world = Platform_ProcessWorld();
  MachineID id = state.host.Get(ComputeHostID);
  if (world == PlatformProcessWorld{}) return id;
  const size_t length = strlen(id.text);
  Str_Sprintf(id.text + length, sizeof id.text - length, "-%x-%x", world.numbers, world.times);
  return id;
}

const char *MachineIDOf(uint64_t process) {
  const Machine *known = state.machine.load(std::memory_order_acquire);
  if (known != nullptr && known->process == process) return known->id.text;
  HeapPtr<Machine> fresh = Heap_New<Machine>(known, process, ComputeMachineID());
  // Another thread of this process may have come first, with the same.
  if (state.machine.compare_exchange_strong(known, fresh.get(), std::memory_order_acq_rel,
                                            std::memory_order_acquire)) {
    known = fresh.release();
  }
  return known->id.text;
}

// As Platform_ProcessStartTime gives it, 0 when unknown.
uint64_t StartTimeOf(pid_t self, uint64_t process) {
  if (state.startOf.load(std::memory_order_acquire) == process) {
    return state.start.load(std::memory_order_relaxed);
  }
  // The process exists.  What is not known now may be known the next time.
  uint64_t time = 0;
  if (!Platform_ProcessStartTime(self, &time) || time == 0) return 0;
  state.start.store(time, std::memory_order_relaxed);
  state.startOf.store(process, std::memory_order_release);
  return time;
}

bool HasPrefix(const char *id) {
  return strncmp(id, kUuidPrefix, kPrefixLength) == 0;
}

bool DecodeOldHost(const char *id, FileLockOldHost *host) {
  size_t length = 0;
  MachineID text{};
  if (strlen(id) < sizeof text.text) {
    Str_Strcpy(text.text, id, sizeof text.text);
    ReplaceAll(text.text, '-', '/');
    if (Base64_Decode(text.text, host->data(), host->size(), &length) && length == host->size()) {
      return true;
    }
  }
  Log("%s: unexpected decode problem #2 (%s)\n", "OldMachineIDMatch", FileLockPrintable(id).get());
  return false;
}

// A number at the beginning of `text`, and what follows it; false when there is none, or none that
// fits.
bool ParseNumber(const char *text, unsigned long long *number, const char **rest) {
  char *end = nullptr;
  errno = 0;
  *number = strtoull(text, &end, 10);
  *rest = end;
  return end != text && errno == 0;
}

struct Execution {
  pid_t pid;
  uint64_t startTime;  // 0 when the record does not tell
};

bool ParseExecutionID(const char *id, Execution *execution) {
  unsigned long long pid;
  const char *rest;
  if (!ParseNumber(id, &pid, &rest) || pid > INT32_MAX) return false;
  *execution = {static_cast<pid_t>(pid), 0};
  unsigned long long startTime;
  if (*rest == '-' && rest[1] != '-' && ParseNumber(rest + 1, &startTime, &rest)) {
    execution->startTime = startTime;
  }
  return true;
}

}  // namespace

const char *FileLockMachineID() {
  return MachineIDOf(ProcessKey(getpid()));
}

bool OldMachineIDMatch(const char *a, const char *b) {
  if (HasPrefix(a) == HasPrefix(b)) return strcmp(a, b) == 0;
  // An old identity names the host alone.
  if (HasPrefix(b) || strcmp(a, state.host.Get(ComputeHostID).text) != 0) return false;
  FileLockOldHost other;
  return DecodeOldHost(b, &other) && FileLockSameOldHost(OwnOldHost(), other);
}

// Bytes 4 to 7 have been what counts.  They are zero on all hosts without hardware address.
bool FileLockSameOldHost(const FileLockOldHost &own, const FileLockOldHost &other) {
  const auto hardware = own.begin() + 4;
  if (std::all_of(hardware, hardware + 4, [](unsigned char byte) { return byte == 0; })) {
    return own == other;
  }
  return std::equal(hardware, hardware + 4, other.begin() + 4);
}

FileLockExecution FileLockOwnExecution() {
  const pid_t pid = getpid();
  const uint64_t process = ProcessKey(pid);
  FileLockExecution execution;
  execution.machineID = MachineIDOf(process);
  execution.startTime = StartTimeOf(pid, process);
  Str_Sprintf(execution.text, sizeof execution.text, "%d-%llu", pid,
              static_cast<unsigned long long>(execution.startTime));
  return execution;
}

bool FileLockValidExecutionID(const char *executionID) {
  Execution recorded;
  if (!ParseExecutionID(executionID, &recorded)) {
    Log("FILE: %s parse error on '%s'. Assuming valid.\n", "FileLockValidExecutionID",
        FileLockPrintable(executionID).get());
    return true;
  }
  if (Hostinfo_ProcessState(recorded.pid) == HOSTINFO_PROCESS_DEAD) return false;
  uint64_t current;
  if (!Platform_ProcessStartTime(recorded.pid, &current)) return false;
  return recorded.startTime == 0 || current == 0 || recorded.startTime == current;
}

FileLockPayload FileLockMakePayload(const char *lockDir) {
  FileLockPayload payload;
  Str_Sprintf(payload.text, sizeof payload.text, "%u", Djb2_Hash(lockDir));
  return payload;
}
