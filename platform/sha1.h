// sha1.h -- SHA-1 (FIPS 180-4), for identifiers.  Not for data that an attacker may choose.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

using PlatformSha1Digest = std::array<uint8_t, 20>;

// Stores the digest of the `size` bytes at `data`.  False, with *digest undefined, if the host's
// cryptography refuses, for example by policy.  Any thread.
[[nodiscard]] bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest);
