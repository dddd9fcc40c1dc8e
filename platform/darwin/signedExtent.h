// signedExtent.h -- how much there is of an item that is to be checked; macOS's framework does not tell.
#pragma once

#include "platform/codeSignature.h"

// The extent of the open regular file or directory.  No link is followed, and only directories are
// opened.  False with errno set; EFBIG for more entries than any bundle has, ELOOP for directories
// nested deeper.
[[nodiscard]] bool SignedExtentOf(int item, PlatformSignedExtent *extent);
