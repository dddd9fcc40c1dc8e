// linkAddress.h -- hardware addresses in the list of getifaddrs(3).
#pragma once

#include <array>
#include <cstdint>

struct ifaddrs;

using PlatformLinkAddress = std::array<uint8_t, 6>;

// Whether the address of `entry` is a link-layer address.  Then *address is its first six bytes;
// a shorter address, or a truncated record, is padded with zeros.
[[nodiscard]] bool Platform_LinkAddress(const ifaddrs &entry, PlatformLinkAddress *address);
