// codeSignature.h -- whether an item is signed by the maker, and what a bundle calls itself.
//
// The item is open already, so that whatever is done with it afterwards is done with the very file
// or directory that was checked.  The procedures report by a small number at which step they failed,
// for the caller's log; they write nothing themselves.  They start the host's cryptography when they
// are first called, not before.  Not for a child process between fork and exec.
#pragma once

#include <cstdint>

#include "lib/public/fd.h"
#include "lib/public/heap.h"

struct PlatformSignedExtent {
  uint64_t bytes = 0;    // of all regular files together, those of the signature included
  uint64_t entries = 0;  // below a directory: files, links and directories; 0 for a file
};

struct PlatformSignature {
  int failure = 0;                   // 0, or the number of the step that failed
  PlatformSignedExtent extent = {};  // when failure is 0: no more than this is to be copied
  // Null; or why nothing could be found out about the item, in a few static words, and the errno, or
  // 0.  The item may then be valid or not; the failure is that of an item that is not.
  const char *obstacle = nullptr;
  int error = 0;
  const char *reason = nullptr;  // unless failure is 0: what is wrong, for people, in static words
  bool noTrust = false;          // the obstacle: this machine trusts nobody's signatures
};

// Opens the regular file or directory at `path` (not null) for reading, close-on-exec.  Nothing
// else is ever opened: no link at the end of the path, no device, FIFO or socket.  Empty with errno
// set: ELOOP for a link, ENOTSUP for another kind.  Any thread.
[[nodiscard]] Fd Platform_OpenSignedItem(const char *path);

// Checks that the file or directory bundle at `path` is signed, unchanged since, by a trusted
// certificate whose common name contains "Zephrin, Inc.", under the name `identifier`.  Both are
// not null.  `item` is what Platform_OpenSignedItem opened there; -1 when it could open nothing.
// Its offset does not matter, and stays.  The failure is 0 when the item is valid, or
//   1  the path cannot be expressed        5  the requirement cannot be written down
//   2  nor made a URL                      6  the requirement is refused
//   3  nothing that could be signed is     7  the item does not meet it, or the check failed
//      at the path
// An identifier of other than printable ASCII characters, or with a quotation mark or a backslash,
// could change the requirement's meaning: macOS refuses it with 6.  Linux has 3 and 7 only, and
// judges the open item; the path is for macOS, whose framework takes nothing else.
//
// The result describes the item during the call: it holds on only where nobody untrusted may write.
// One thread at a time.
[[nodiscard]] PlatformSignature Platform_VerifyCodeSignature(const char *path, int item,
                                                             const char *identifier);

struct PlatformBundleIdentifier {
  // 0, or
  //   1  the path cannot be expressed    3  there is no bundle
  //   2  nor made a URL                  4  the bundle has no identifier
  int failure;
  // UTF-8; null after a failure, when the identifier has no form in UTF-8, and without memory for it.
  HeapStr text;
  const char *obstacle = nullptr;  // as in PlatformSignature
  int error = 0;
};

// The identifier of the bundle at `path` (not null), open as `item`, or -1.  Linux has 3 and 4 only,
// and reads the property list Contents/Info.plist in XML or binary form.  The bundle need not be
// trusted, so neither is the text.  One thread at a time.
[[nodiscard]] PlatformBundleIdentifier Platform_BundleIdentifier(const char *path, int item);

// Ends what the two checks have started for themselves: processes on Linux, nothing on macOS.  To be
// called after the last check, from the thread that made it; a further check starts anew.
void Platform_EndCodeSignatureChecks();
