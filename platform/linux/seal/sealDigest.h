// sealDigest.h -- the digest of an open file.
#pragma once

#include "platform/linux/seal/sealText.h"

// SHA-256 of the file's first `limit` bytes, or of all if there are fewer; *size is their number.  The
// descriptor's offset is neither used nor changed.  False with errno set; ENOMEM if OpenSSL fails.
[[nodiscard]] bool SealDigestOf(int fd, uint64_t limit, SealDigest *digest, uint64_t *size);
