// linkAddress.cpp -- hardware addresses of interfaces, on Linux: packet-socket addresses.
// Tests: tests/unit/hostServices_test.cpp

#include "platform/linkAddress.h"

#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>

bool Platform_LinkAddress(const ifaddrs &entry, PlatformLinkAddress *address) {
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_PACKET) return false;
  const auto *const link = reinterpret_cast<const sockaddr_ll *>(entry.ifa_addr);
  // Infiniband addresses are longer than sll_addr; the first six bytes are always there.
  static_assert(sizeof link->sll_addr >= sizeof(PlatformLinkAddress));
  *address = {};
  std::copy_n(link->sll_addr, std::min<size_t>(link->sll_halen, address->size()), address->begin());
  return true;
}
