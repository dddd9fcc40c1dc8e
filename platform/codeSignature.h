// codeSignature.h -- whether an item is signed by the maker, and the identifier of a bundle.
//
// The item is passed open, so that the caller goes on with the very file or directory that was checked.
// The procedures log nothing: they return the number of the step that failed, for the caller's log.
// The host's cryptography is not started before the first call.  Not for a child process between fork
// and exec.
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
  PlatformSignedExtent extent = {};  // if failure is 0: no more than this may be copied
  // If the item could not be examined, the reason in a few static words, with errno or 0; the item may be
  // valid then, but `failure` is that of an invalid one.  Otherwise null.
  const char *obstacle = nullptr;
  int error = 0;
  const char *reason = nullptr;  // unless failure is 0: what is wrong, in static words for people
  bool noTrust = false;          // the obstacle is that this machine has no trusted anchors
};

// Opens the regular file or directory at `path` (not null) for reading, close-on-exec.  Nothing
// else is ever opened: no link at the end of the path, no device, FIFO or socket.  Empty with errno
// set: ELOOP for a link, ENOTSUP for any other kind.  Any thread.
[[nodiscard]] Fd Platform_OpenSignedItem(const char *path);

// Checks that the file or directory bundle at `path` has been signed under the name `identifier`, by a
// trusted certificate whose common name contains "Zephrin, Inc.", and has not changed since.  Neither may
// be null.  `item` is what Platform_OpenSignedItem opened there, -1 if it failed; its offset is neither
// used nor changed.  `failure` is 0 if the item is valid, or
//   1  the path is not valid UTF-8         5  the text of the requirement cannot be made
//   2  no URL can be made of the path      6  the requirement is refused
//   3  nothing that could be signed is     7  the item does not meet it, or the check failed
//      at the path
// An identifier with anything but printable ASCII characters, or with a quotation mark or a backslash,
// could change the meaning of the requirement: macOS refuses it with 6.  Linux checks the open item,
// and returns 3 and 7 only; macOS needs the path, since its framework accepts nothing else.
//
// The result is true of the item during the call, and afterwards only where nobody untrusted may write.
// One thread at a time.
[[nodiscard]] PlatformSignature Platform_VerifyCodeSignature(const char *path, int item,
                                                             const char *identifier);

struct PlatformBundleIdentifier {
  // 0, or
  //   1  the path is not valid UTF-8     3  there is no bundle
  //   2  no URL can be made of the path  4  the bundle has no identifier
  int failure;
  // UTF-8; null after a failure, if the identifier cannot be converted, and if memory is exhausted.
  HeapStr text;
  const char *obstacle = nullptr;  // as in PlatformSignature
  int error = 0;
};

// The identifier of the bundle at `path` (not null); `item` as above.  Linux reads the property list
// Contents/Info.plist, in XML or binary form, and returns 3 and 4 only.  The bundle may be untrusted, and
// then so is the text.  One thread at a time.
[[nodiscard]] PlatformBundleIdentifier Platform_BundleIdentifier(const char *path, int item);

// Ends the processes that the two checks have started on Linux; nothing on macOS.  Call it after the
// last check, on the thread that made it; a later check starts them again.
void Platform_EndCodeSignatureChecks();
