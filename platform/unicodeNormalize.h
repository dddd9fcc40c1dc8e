// unicodeNormalize.h -- one spelling for each text (Unicode Standard Annex 15).
#pragma once

#include "lib/public/heap.h"

// The string (UTF-8, not null) in normalisation form C if `precomposed`, else D.  Null when it is
// not UTF-8 or memory is exhausted.  How characters newer than the host's Unicode are treated
// differs between hosts.  Any thread.
[[nodiscard]] HeapStr Platform_NormalizeUnicode(const char *string, bool precomposed);
