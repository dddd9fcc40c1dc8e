// sealDigest.h -- the digest of an open file.
#pragma once

#include "platform/linux/sealText.h"

// SHA-256 of all bytes of the file; the descriptor's offset does not matter, and stays.  False with errno set; ENOMEM
// when OpenSSL fails.
[[nodiscard]] bool SealDigestOf(int fd, SealDigest *digest);
