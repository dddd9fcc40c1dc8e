// sealDigest.h -- the digest of an open file.
#pragma once

#include "platform/linux/sealText.h"

// SHA-256 of the file's bytes from the descriptor's offset to the end.  False with errno set; ENOMEM
// when OpenSSL fails.
[[nodiscard]] bool SealDigestOf(int fd, SealDigest *digest);
