// linkAddress.cpp -- hardware addresses of interfaces, on macOS: link-level socket addresses.
// Tests: tests/unit/darwin_test.cpp

#include "platform/linkAddress.h"

#include <ifaddrs.h>
#include <net/if_dl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

// The length of a record is in sdl_len, and may be more or less than sizeof(sockaddr_dl): its data are
// the interface's name, followed by the address.
bool Platform_LinkAddress(const ifaddrs &entry, PlatformLinkAddress *address) {
  if (entry.ifa_addr == nullptr) return false;
  const auto *const link = reinterpret_cast<const sockaddr_dl *>(entry.ifa_addr);
  if (link->sdl_family != AF_LINK) return false;
  *address = {};
  if (link->sdl_len < offsetof(sockaddr_dl, sdl_data)) return true;
  const size_t start = offsetof(sockaddr_dl, sdl_data) + link->sdl_nlen;
  if (link->sdl_len <= start) return true;
  const size_t size = std::min<size_t>({link->sdl_alen, link->sdl_len - start, address->size()});
  std::copy_n(reinterpret_cast<const uint8_t *>(link) + start, size, address->begin());
  return true;
}
