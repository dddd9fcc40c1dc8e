// bundleIdentifier.h -- the identifier of a bundle, on Linux.
#pragma once

#include "lib/public/heap.h"

// The string under the key CFBundleIdentifier in the property list Contents/Info.plist of the bundle,
// which is open as the directory `bundle`.  The list is in XML or binary form; it is untrusted, and so
// is the string.  Null with errno set: ENODATA if there is no such string or it is empty, EFBIG for a
// list of more than 1 MiB.
[[nodiscard]] HeapStr BundleIdentifier_Read(int bundle);
