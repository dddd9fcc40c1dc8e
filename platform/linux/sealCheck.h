// sealCheck.h -- whether an item is what its seal says.
#pragma once

#include "platform/linux/sealVerdict.h"
#include "platform/linux/smallFile.h"

// Where the anchors are, below "/".
inline constexpr char kSealAnchors[] = "etc/zephrin/code-signing-anchors.pem";

// The bytes of the anchors' file `path` below the directory `start`.  That file and every directory
// from the start on must belong to root, and only root may write: whoever may rename one of them
// could put another file of root's in the place of the anchors.
[[nodiscard]] SealVerdict SealReadAnchors(int start, const char *path, SmallFileBytes *anchors);

// The seal of an open regular file or directory, as it stands.
[[nodiscard]] SealVerdict SealRead(int item, SmallFileBytes *seal);

// Whether the open regular file or directory is sealed under the name
// `identifier` (not null) by someone whom the anchors, certificates in PEM, allow to.
[[nodiscard]] SealVerdict SealCheck(int item, const char *identifier, std::string_view anchors);
