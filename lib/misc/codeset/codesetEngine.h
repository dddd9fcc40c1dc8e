// codesetEngine.h -- a conversion engine, as codeset.cpp sees it: a table of operations.
//
// The library's own engine is installed from the start.  codesetIcu.cpp, which is linked only into
// programs that call CodeSet_Init, installs another one.  No operation is called with an empty text.
#pragma once

#include <cstddef>

struct DynBuf;

struct CodeSetEngine {
  // Appends the converted text to `out`.  Returns 0, or an errno: EILSEQ for a text that is invalid
  // or cannot be expressed, EINVAL for a pair that the engine does not convert, or ENOMEM.  Then
  // `out` may hold a part of the result.
  int (*convert)(const char *fromName, const char *bytes, size_t length, const char *toName,
                 int flags, DynBuf *out);

  // Whether the text, of less than 2^31 bytes, can be converted from the encoding.
  bool (*isValid)(const char *bytes, size_t length, const char *name);
};

extern const CodeSetEngine kCodeSetOwnEngine;

// Makes `engine`, which is never freed, the one that all further calls use.
void CodeSetInstallEngine(const CodeSetEngine *engine);

// The source file named in the fatal messages of both engines.
inline constexpr char kCodeSetSource[] = "lib/misc/codeset";
