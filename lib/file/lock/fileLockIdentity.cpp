// fileLockIdentity.cpp -- how the records of a lock name machines, processes and directories.
//
// Idea:  a process is its number and the time it started, so that a later process with the same
//        number is not taken for it.  Only a process of this machine can be looked up.
// Holds: 1. When in doubt, a process lives: to break the lock of a live one does harm, to wait for a
//           dead one does not.
//        2. The identity of this machine stays the same while the process runs.

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

// The host's identity of old: the hash of its name and its hardware identifier.
constexpr size_t kOldSize = sizeof(uint32_t) + sizeof(uint64_t);
// What of it the match of an old with a new identity goes by.
constexpr size_t kOldMatchFirst = 4;
constexpr size_t kOldMatchSize = 4;

struct MachineID {
  char text[64];
};

// The start time of the process that was `pid` when it was asked for; a child gets its own.
struct OwnStart {
  std::atomic<pid_t> pid;
  std::atomic<uint64_t> time;
};

struct IdentityState {
  OnceCell<MachineID> machine;
  OnceCell<MachineID> oldMachine;
  OwnStart ownStart;
};
constinit IdentityState state{};

void ReplaceAll(char *text, char from, char to) {
  for (; *text != '\0'; text++) {
    if (*text == from) *text = to;
  }
}

MachineID ComputeOldMachineID() {
  uint32_t hostNameHash;
  uint64_t hardwareID;
  Hostinfo_MachineID(&hostNameHash, &hardwareID);
  unsigned char bytes[kOldSize];
  memcpy(bytes, &hostNameHash, sizeof hostNameHash);
  memcpy(bytes + sizeof hostNameHash, &hardwareID, sizeof hardwareID);
  MachineID id{};
  if (!Base64_Encode(bytes, sizeof bytes, id.text, sizeof id.text, nullptr)) {
    Fatal_BufferTooSmall("lib/file/fileLockIdentity", 66);
  }
  ReplaceAll(id.text, '/', '-');
  return id;
}

MachineID ComputeMachineID() {
  const char *const uuid = UUID_HostString();
  if (uuid == nullptr) return state.oldMachine.Get(ComputeOldMachineID);
  MachineID id{};
  Str_Sprintf(id.text, sizeof id.text, "uuid=%s", uuid);
  ReplaceAll(id.text, ' ', '-');
  return id;
}

bool HasPrefix(const char *id) {
  return strncmp(id, kUuidPrefix, kPrefixLength) == 0;
}

bool DecodeOldMachineID(const char *id, int number, unsigned char (&bytes)[kOldSize]) {
  size_t length = 0;
  MachineID text{};
  if (strlen(id) < sizeof text.text) {
    Str_Strcpy(text.text, id, sizeof text.text);
    ReplaceAll(text.text, '-', '/');
    if (Base64_Decode(text.text, bytes, sizeof bytes, &length) && length == kOldSize) return true;
  }
  if (number == 1) {
    Log("%s: unexpected decode problem #1 (%s)\n", "OldMachineIDMatch", id);
  } else {
    Log("%s: unexpected decode problem #2 (%s)\n", "OldMachineIDMatch", id);
  }
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
  return state.machine.Get(ComputeMachineID).text;
}

bool OldMachineIDMatch(const char *a, const char *b) {
  if (HasPrefix(a) && HasPrefix(b)) return strcmp(a + kPrefixLength, b + kPrefixLength) == 0;
  if (HasPrefix(b)) return false;
  if (!HasPrefix(a)) return strcmp(a, b) == 0;
  unsigned char own[kOldSize];
  unsigned char other[kOldSize];
  return DecodeOldMachineID(state.oldMachine.Get(ComputeOldMachineID).text, 1, own) &&
         DecodeOldMachineID(b, 2, other) &&
         memcmp(own + kOldMatchFirst, other + kOldMatchFirst, kOldMatchSize) == 0;
}

uint64_t FileLockOwnStartTime(pid_t pid) {
  if (state.ownStart.pid.load(std::memory_order_acquire) == pid) {
    return state.ownStart.time.load(std::memory_order_relaxed);
  }
  // The process exists.  What is not known now may be known the next time.
  uint64_t time = 0;
  if (!Platform_ProcessStartTime(pid, &time) || time == 0) return 0;
  state.ownStart.time.store(time, std::memory_order_relaxed);
  state.ownStart.pid.store(pid, std::memory_order_release);
  return time;
}

FileLockExecutionID FileLockMakeExecutionID(pid_t pid, uint64_t startTime) {
  FileLockExecutionID id;
  Str_Sprintf(id.text, sizeof id.text, "%d-%llu", pid, static_cast<unsigned long long>(startTime));
  return id;
}

bool FileLockValidExecutionID(const char *executionID) {
  Execution recorded;
  if (!ParseExecutionID(executionID, &recorded)) {
    Log("FILE: %s parse error on '%s'. Assuming valid.\n", "FileLockValidExecutionID", executionID);
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
