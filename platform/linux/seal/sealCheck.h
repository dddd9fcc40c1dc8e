// sealCheck.h -- whether an item is what its seal says.
#pragma once

#include <cstdint>

#include "platform/linux/seal/sealVerdict.h"
#include "platform/linux/seal/smallFile.h"

// Where the anchors are, below "/".
inline constexpr char kSealAnchors[] = "etc/zephrin/code-signing-anchors.pem";

// The bytes of the anchors' file `path` below the directory `start`.  That file and every directory
// from the start on must belong to root, and only root may write: a user who may rename one of them
// could put another file of root's in its place.  errno is set with the verdict NoAnchors.
[[nodiscard]] SealVerdict SealReadAnchors(int start, const char *path, SmallFileBytes *anchors);

// The seal of an open regular file or directory, as it stands.  errno is set with the verdict
// Unreadable.
[[nodiscard]] SealVerdict SealRead(int item, SmallFileBytes *seal);

struct SealExtent {
  uint64_t bytes;    // of all listed files, and of a directory's seal
  uint64_t entries;  // below a directory, directories included; 0 for a file
};

// Whether the open regular file or directory is sealed under the name `identifier` (not null) by a
// signer that the anchors, certificates in PEM, allow.  *extent is good with the verdict Valid.  errno
// is set with the verdict Unreadable.
[[nodiscard]] SealVerdict SealCheck(int item, const char *identifier, std::string_view anchors,
                                    SealExtent *extent);
