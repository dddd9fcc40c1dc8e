// codesetEngine.h -- what the code sets ask of whoever converts: a table of operations.
//
// The library's own engine is in place from the start.  codesetIcu.cpp, which only programs that
// call CodeSet_Init contain, installs another one.  No operation is called with an empty text.
#pragma once

#include <cstddef>

struct DynBuf;

struct CodeSetEngine {
  // Appends the text, converted, to `out`.  On failure `out` may hold a part of it, too.
  bool (*convert)(const char *fromName, const char *bytes, size_t length, const char *toName,
                  int flags, DynBuf *out);

  // Whether the text, of less than 2^31 bytes, can be converted from the encoding.
  bool (*isValid)(const char *bytes, size_t length, const char *name);
};

extern const CodeSetEngine kCodeSetOwnEngine;

// From now on `engine`, which stays for good, does all the work.
void CodeSetInstallEngine(const CodeSetEngine *engine);

// The source file that fatal messages of both engines name.
inline constexpr char kCodeSetSource[] = "lib/misc/codeset";
