// uuid.cpp -- the host's identity as a text of sixteen bytes.
//
// Tests: tests/unit/hostServices_test.cpp

#include "lib/public/uuid.h"

#include "lib/public/heap.h"
#include "lib/public/hostinfo.h"
#include "lib/public/onceCell.h"
#include "lib/public/str.h"
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

// A failure is cached, too: an identity that changes while the process runs would be worse than none.
HostText ComputeHostText() {
  uint32_t hostNameHash;
  uint64_t hardwareID;
  Hostinfo_MachineID(&hostNameHash, &hardwareID);
  PlatformSha1Digest digest;
  const bool ok = hardwareID != 0 ? Platform_Sha1(&hardwareID, sizeof hardwareID, &digest)
                                  : Platform_Sha1(&hostNameHash, sizeof hostNameHash, &digest);
  HostText host{};
  if (!ok) return host;

  digest[0] = kHostMark;
  const auto &d = digest;
  Str_Sprintf(host.text, sizeof host.text,
              "%02x %02x %02x %02x %02x %02x %02x %02x-%02x %02x %02x %02x %02x %02x %02x %02x",
              d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10], d[11], d[12],
              d[13], d[14], d[15]);
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
