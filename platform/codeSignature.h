// codeSignature.h -- whether an item is signed by the maker, and what a bundle calls itself.
//
// Both procedures say by a small number at which step they failed, for whoever writes the log; they
// write nothing themselves.  They start the host's cryptography when they are first called, not
// before.  Not for a child process between fork and exec.  Any thread.
#pragma once

#include "heap.h"

// Checks that the file or directory bundle at `path` is signed, unchanged since, by a trusted
// certificate whose common name contains "Zephrin, Inc.", under the name `identifier`.  Both are
// not null.  0 when it is so.  Otherwise the failure:
//   1  the path cannot be expressed        5  the requirement cannot be written down
//   2  nor made a URL                      6  the requirement is refused
//   3  nothing that could be signed is     7  the item does not meet it, or the check failed
//      at the path
// An identifier of other than printable ASCII characters, or with a quotation mark or a backslash,
// could change the requirement's meaning: macOS refuses it with 6.  Linux has 3 and 7 only, and
// does not follow a symbolic link at the end of the path.
//
// The result says what was at the path during the call: it holds on only where nobody who is not
// trusted may write.
[[nodiscard]] int Platform_VerifyCodeSignature(const char *path, const char *identifier);

struct PlatformBundleIdentifier {
  int failure;   // 0, or
                 //   1  the path cannot be expressed    3  there is no bundle
                 //   2  nor made a URL                  4  the bundle has no identifier
  HeapStr text;  // UTF-8; null after a failure, and when the identifier cannot be had as UTF-8
};

// The identifier of the bundle at `path` (not null).  Linux has 3 and 4 only, and reads the
// property list Contents/Info.plist in XML or binary form.  The bundle need not be trusted, so neither
// is the text.
[[nodiscard]] PlatformBundleIdentifier Platform_BundleIdentifier(const char *path);
