// codesetNormalize.cpp -- Unicode normalisation, by the host.

#include <cstring>

#include "codeset.h"
#include "dynbuf.h"
#include "heap.h"
#include "platform/unicodeNormalize.h"

bool CodeSet_Utf8Normalize(const char *string, bool precomposed, DynBuf *out) {
  const HeapStr normalized = Platform_NormalizeUnicode(string, precomposed);
  return normalized != nullptr && DynBuf_Append(out, normalized.get(), strlen(normalized.get()));
}
