// codesetNormalize.cpp -- Unicode normalisation, by the host.
// Tests: tests/unit/darwin_test.cpp

#include <cstring>

#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/heap.h"
#include "platform/unicodeNormalize.h"

bool CodeSet_Utf8Normalize(const char *string, bool precomposed, DynBuf *out) {
  const HeapStr normalized = Platform_NormalizeUnicode(string, precomposed);
  return normalized != nullptr && DynBuf_Append(out, normalized.get(), strlen(normalized.get()));
}
