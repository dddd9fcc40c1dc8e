// sealCheck.h -- checks an item against its seal.
#pragma once

#include <cstdint>

#include "platform/linux/seal/sealVerdict.h"
#include "platform/linux/seal/smallFile.h"

// Where the anchors are, below "/".
inline constexpr char kSealAnchors[] = "etc/zephrin/code-signing-anchors.pem";

// Reads the anchors from the file `path` below the directory `start`.  The file and every directory from
// `start` on must belong to root and be writable by root only: a user who can rename one of them could
// substitute another file that belongs to root.  errno is set with the verdict NoAnchors.
[[nodiscard]] SealVerdict SealReadAnchors(int start, const char *path, SmallFileBytes *anchors);

// Reads the seal of an open regular file or directory, without checking it.  errno is set with the
// verdict Unreadable.
[[nodiscard]] SealVerdict SealRead(int item, SmallFileBytes *seal);

struct SealExtent {
  uint64_t bytes;    // of all listed files, and of a directory's seal
  uint64_t entries;  // below a directory, directories included; 0 for a file
};

// Whether the open regular file or directory is sealed under the name `identifier` (not null) by a
// signer whom the anchors (certificates in PEM) vouch for.  *extent is set with the verdict Valid, errno
// with Unreadable and NoAnchors (0: no certificate among them).  *where (may be null) is set when the verdict concerns one entry of a directory: to
// its path below that, as a new string, or null without memory for it.
[[nodiscard]] SealVerdict SealCheck(int item, const char *identifier, std::string_view anchors,
                                    SealExtent *extent, HeapStr *where = nullptr);
