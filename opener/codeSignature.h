// codeSignature.h -- whether a file or bundle is the maker's, unchanged.
#pragma once

// Whether the file or bundle at `path` has a valid signature by the product's maker for
// `identifier` (neither null; UTF-8).  False after a record with the number of the step that failed.
// Any thread.
[[nodiscard]] bool VerifyCodeSignature(const char *path, const char *identifier);

// The identifier that the bundle at `path` (not null; UTF-8) carries, in a new string that the
// caller frees.  Null after a record.  Any thread.
[[nodiscard]] char *GetBundleIdentifier(const char *path);
