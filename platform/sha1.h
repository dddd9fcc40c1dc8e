// sha1.h -- SHA-1 (FIPS 180-4), for identifiers.  Not for anything that an attacker may choose.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

using PlatformSha1Digest = std::array<uint8_t, 20>;

// The digest of the `size` bytes at `data`.  False when the host's cryptography refuses, for
// example by policy; then *digest is not set.  Any thread.
[[nodiscard]] bool Platform_Sha1(const void *data, size_t size, PlatformSha1Digest *digest);
