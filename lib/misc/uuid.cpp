// uuid.cpp -- the host's identity as a text of sixteen bytes.

#include "uuid.h"

#include "heap.h"
#include "hostinfo.h"
#include "lib/misc/onceCell.h"
#include "platform/sha1.h"

namespace {

constexpr size_t kNumBytes = 16;
constexpr uint8_t kHostMark = 'R';  // in place of the first byte: derived from the host

struct HostText {
  char text[3 * kNumBytes];  // empty when SHA-1 failed
};

struct UuidState {
  OnceCell<HostText> host;
};

constinit UuidState state;

// Cached even when it fails: an identity that changes while the process runs is worse than none.
HostText ComputeHostText() {
  uint32_t hostNameHash;
  uint64_t hardwareID;
  Hostinfo_MachineID(&hostNameHash, &hardwareID);
  PlatformSha1Digest digest;
  const bool ok = hardwareID != 0 ? Platform_Sha1(&hardwareID, sizeof hardwareID, &digest)
                                  : Platform_Sha1(&hostNameHash, sizeof hostNameHash, &digest);
  HostText host{};
  if (!ok) return host;

  static constexpr char kDigits[] = "0123456789abcdef";
  digest[0] = kHostMark;
  char *p = host.text;
  for (size_t i = 0; i < kNumBytes; i++) {
    if (i > 0) *p++ = i == kNumBytes / 2 ? '-' : ' ';
    *p++ = kDigits[digest[i] >> 4];
    *p++ = kDigits[digest[i] & 0xF];
  }
  return host;
}

}  // namespace

const char *UUID_HostString() {
  const char *const text = state.host.Get(ComputeHostText).text;
  return *text == '\0' ? nullptr : text;
}

char *UUID_GetHostString() {
  const char *const text = UUID_HostString();
  return text == nullptr ? nullptr : Heap_SafeStrdup(text).release();
}
