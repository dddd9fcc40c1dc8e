// signedExtent.h -- the size of an item to be checked, which macOS's framework does not report.
#pragma once

#include "platform/codeSignature.h"

// Stores the extent of the open regular file or directory.  No link is followed, and only directories
// are opened.  False with errno set: EFBIG for more entries, and ELOOP for deeper nesting, than any
// bundle has.
[[nodiscard]] bool SignedExtentOf(int item, PlatformSignedExtent *extent);
