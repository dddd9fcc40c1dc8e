// unicodeNormalize.h -- Unicode normalisation (Unicode Standard Annex 15).
#pragma once

#include "lib/public/heap.h"

// The string (UTF-8, not null) in normalisation form C if `precomposed`, else D.  Null if it is not valid
// UTF-8 or memory is exhausted.  The hosts treat characters newer than their version of Unicode
// differently.  Any thread.
[[nodiscard]] HeapStr Platform_NormalizeUnicode(const char *string, bool precomposed);
