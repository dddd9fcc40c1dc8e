// sealDigest.h -- the digest of an open file.
#pragma once

#include "platform/linux/seal/sealText.h"

// SHA-256 of the file's bytes, of the first `limit` if it has more; *size is how many these are.  The
// descriptor's offset does not matter, and stays.  False with errno set; ENOMEM when OpenSSL fails.
[[nodiscard]] bool SealDigestOf(int fd, uint64_t limit, SealDigest *digest, uint64_t *size);
