// codeSignature.h -- whether a file or bundle is the maker's, unchanged.
//
// What the first call starts for the checks lasts until Platform_EndCodeSignatureChecks.  One thread
// at a time.
#pragma once

#include "platform/codeSignature.h"

// Whether the file or bundle at `path` has a valid signature by the product's maker for
// `identifier` (neither null; UTF-8).  False after a record with the number of the step that failed,
// and before it, when nothing could be found out about the item, one that says why.
[[nodiscard]] bool VerifyCodeSignature(const char *path, const char *identifier);

// The same for what Platform_OpenSignedItem has opened at `path`, or could not: `item` is then -1,
// and errno as it left it.  *extent is how much there is of it, if the signature is valid.
[[nodiscard]] bool VerifyOpenCodeSignature(const char *path, int item, const char *identifier,
                                           PlatformSignedExtent *extent);

// The identifier that the bundle at `path` (not null; UTF-8) carries, in a new string that the
// caller frees.  Null after a record, or two, as above.
[[nodiscard]] char *GetBundleIdentifier(const char *path);

// The same for what Platform_OpenSignedItem has opened at `path`, or could not.
[[nodiscard]] char *GetOpenBundleIdentifier(const char *path, int item);
