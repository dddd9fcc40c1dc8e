// codeSignature.h -- whether a file or bundle is the maker's, unchanged.
//
// The first call may start helper processes, which live until Platform_EndCodeSignatureChecks.  One
// thread at a time.
#pragma once

#include "platform/codeSignature.h"

// Whether the file or bundle at `path` has a valid signature by the product's maker for
// `identifier` (neither null; UTF-8).  If not, logs the number of the step that failed and returns
// false; if the item could not be examined at all, a record before that one says why.
[[nodiscard]] bool VerifyCodeSignature(const char *path, const char *identifier);

// The same for `item`, which Platform_OpenSignedItem has opened at `path`; -1 if it failed, with errno
// as it left it.  If the signature is valid, *extent is the size of what it covers.
[[nodiscard]] bool VerifyOpenCodeSignature(const char *path, int item, const char *identifier,
                                           PlatformSignedExtent *extent);

// The identifier that the bundle at `path` (not null; UTF-8) carries, in a new string that the
// caller frees.  Null on failure, logged as above.
[[nodiscard]] char *GetBundleIdentifier(const char *path);

// The same for `item`, as in VerifyOpenCodeSignature.
[[nodiscard]] char *GetOpenBundleIdentifier(const char *path, int item);
