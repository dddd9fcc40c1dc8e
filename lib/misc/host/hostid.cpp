// hostid.cpp -- what identifies the host: a hash of its name and the address of its network interface.
//
// Tests: tests/unit/hostServices_test.cpp

#include <ifaddrs.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include "lib/public/djb2.h"
#include "lib/public/heap.h"
#include "lib/public/hostinfo.h"
#include "lib/public/log.h"
#include "lib/public/onceCell.h"
#include "lib/public/str.h"
#include "platform/errorText.h"
#include "platform/linkAddress.h"

namespace {

constexpr unsigned kNumInterfaces = 8;

struct HostIdState {
  OnceCell<uint32_t> hostNameHash;
  OnceCell<uint64_t> hardwareID;
};

constinit HostIdState state;

struct InterfaceListFreer {
  void operator()(ifaddrs *list) const noexcept { freeifaddrs(list); }
};
using InterfaceList = std::unique_ptr<ifaddrs, InterfaceListFreer>;

uint32_t ComputeHostNameHash() {
  const HeapStr name(Hostinfo_HostName());
  if (name == nullptr) {
    Warning("%s Hostinfo_HostName failure; providing default.\n", "Hostinfo_MachineID");
    return 0;
  }
  return Djb2_Hash(name.get());
}

bool FindLinkAddress(const ifaddrs *list, const char *name, PlatformLinkAddress *address) {
  for (; list != nullptr; list = list->ifa_next) {
    if (strcmp(list->ifa_name, name) == 0 && Platform_LinkAddress(*list, address)) return true;
  }
  return false;
}

// Stores the identifier if there is one.  Returns 0, or the errno of the failure after a warning.
int ObtainHardwareID(uint64_t *hardwareID) {
  ifaddrs *first;
  if (getifaddrs(&first) != 0) {
    const int error = errno;
    char text[128];
    Warning("%s getifaddrs failure: %s.\n", "ObtainHardwareID", Platform_ErrorText(error, text));
    return error;
  }
  const InterfaceList list(first);
  for (unsigned n = 0; n < kNumInterfaces; n++) {
    char name[sizeof "en0"];
    Str_Sprintf(name, sizeof name, "en%u", n);
    PlatformLinkAddress address;
    if (FindLinkAddress(list.get(), name, &address)) {
      memcpy(hardwareID, address.data(), address.size());
      break;
    }
  }
  return 0;
}

uint64_t ComputeHardwareID() {
  uint64_t hardwareID = 0;
  const int error = ObtainHardwareID(&hardwareID);
  if (error != 0) {
    char text[128];
    Warning("%s ObtainHardwareID failure (%s); providing default.\n", "Hostinfo_MachineID",
            Platform_ErrorText(error, text));
    return 0;
  }
  return hardwareID;
}

}  // namespace

void Hostinfo_MachineID(uint32_t *hostNameHash, uint64_t *hardwareID) {
  *hostNameHash = state.hostNameHash.Get(ComputeHostNameHash);
  *hardwareID = state.hardwareID.Get(ComputeHardwareID);
}
