// bundleIdentifier.h -- what a bundle calls itself, on Linux.
#pragma once

#include "lib/public/heap.h"

// The text that the property list Contents/Info.plist of the bundle, open as the directory `bundle`,
// has under the key CFBundleIdentifier; the list is in XML or binary form.  The list is untrusted,
// and so is the text.  Null with errno set: ENODATA when a list has no such text, which is not empty;
// EFBIG for a list of more than 1 MiB.
[[nodiscard]] HeapStr BundleIdentifier_Read(int bundle);
