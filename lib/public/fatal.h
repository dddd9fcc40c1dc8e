// fatal.h -- programming errors and exhausted memory end the process, with one text for each kind.
//
// `source` is the source file below the library root without its extension, for example
// "lib/string/str"; source and line identify the place for whoever reads the log, and stay as they
// are when the file changes around them.
#pragma once

#include "lib/public/log.h"

[[noreturn]] inline void Fatal_Verify(const char *source, int line) {
  Panic("VERIFY %s:%d\n", source, line);
}

[[noreturn]] inline void Fatal_NotReached(const char *source, int line) {
  Panic("NOT_REACHED %s:%d\n", source, line);
}

[[noreturn]] inline void Fatal_NotImplemented(const char *source, int line) {
  Panic("NOT_IMPLEMENTED %s:%d\n", source, line);
}

[[noreturn]] inline void Fatal_BufferTooSmall(const char *source, int line) {
  Panic("%s:%d Buffer too small\n", source, line);
}

// Memory ran out where the code takes it for granted: the place is that of the check.
[[noreturn]] inline void Fatal_VerifyMemAlloc(const char *source, int line) {
  Panic("MEM_ALLOC %s:%d\n", source, line);
}

[[noreturn]] inline void Fatal_MemAlloc() {
  Panic("Unrecoverable memory allocation failure\n");
}

// The place is that of the caller who asked for the memory.
[[noreturn]] inline void Fatal_MemAlloc(const char *callerSource, unsigned callerLine) {
  Panic("Unrecoverable memory allocation failure at %s:%u\n", callerSource, callerLine);
}
