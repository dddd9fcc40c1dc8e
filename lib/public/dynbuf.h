// dynbuf.h -- a byte buffer that grows as bytes are appended.
//
// A DynBuf is a plain record that its user owns, on the stack or inside another record; the bytes
// are one block from malloc.  It starts with one of the three DynBuf_Init forms, and its block
// leaves it by DynBuf_Detach or is freed by DynBuf_Destroy; ScopedDynBuf does the first and the
// last.  The bytes are not NUL-terminated unless the user appends the NUL or calls
// DynBuf_DetachString.
//
// Sizes are bytes.  The buffer of every procedure is not null and, but for DynBuf_Init*,
// initialised.  What returns a bool leaves the buffer as it was, with errno ENOMEM, when it returns
// false.  A buffer is used by one thread at a time.
#pragma once

#include <cstddef>

#include "lib/public/fatal.h"

struct DynBuf {
  char *data;        // null, or a block from malloc
  size_t size;       // bytes in use
  size_t allocated;  // bytes reserved
};

// ---- begin and end ---------------------------------------------------------------------------

// An empty buffer without a block: all fields zero.
void DynBuf_Init(DynBuf *buf);

// An empty buffer that takes over the block `data` of `allocated` bytes, which came from malloc.
void DynBuf_InitWithMemory(DynBuf *buf, size_t allocated, void *data);

// Takes over the string (not null, from malloc) as the content, without its NUL; the NUL's byte is
// reserved room.
void DynBuf_InitWithString(DynBuf *buf, char *string);

// Frees the block and makes all fields zero.  errno is kept.
void DynBuf_Destroy(DynBuf *buf);

// Frees the block and takes over another one, all of whose `size` bytes are content.
void DynBuf_Attach(DynBuf *buf, size_t size, void *data);

// Hands the block, null when there is none, to the caller, who frees it with free().  The buffer
// has no block any more, but `size` is still the number of bytes that the caller received: initialise
// the buffer before it is used again.
[[nodiscard]] char *DynBuf_Detach(DynBuf *buf);

// ---- growing and shrinking -------------------------------------------------------------------

// Enlarges the block, always: to at least minSize bytes, and by a step at least.  The step is 128
// bytes for the first block, the block's own size below 256 KiB, and 256 KiB from there on: doubling
// keeps the copying linear, and the bound keeps large buffers from reserving much that is never used.
[[nodiscard]] bool DynBuf_Enlarge(DynBuf *buf, size_t minSize);

// Appends `length` bytes, which do not lie in the buffer itself.  `bytes` may be null when length
// is 0.
[[nodiscard]] bool DynBuf_Append(DynBuf *buf, const void *bytes, size_t length);

// Gives back what is reserved and not in use; an empty buffer has no block then.  After a failure
// the buffer is as good as before, only larger than it has to be.
[[nodiscard]] bool DynBuf_Trim(DynBuf *buf);

// Makes `dest` a copy of src: a block of its own with as much reserved and the same content.  What
// dest held before is overwritten, not freed; it need not be initialised.  On failure it is
// unchanged.
[[nodiscard]] bool DynBuf_Copy(const DynBuf *src, DynBuf *dest);

// As DynBuf_Enlarge and DynBuf_Append, but failure is fatal; the message names the caller's source
// file, as in fatal.h, and line.
void DynBuf_SafeEnlarge(DynBuf *buf, size_t minSize, const char *source, unsigned line);
void DynBuf_SafeAppend(DynBuf *buf, const void *bytes, size_t length, const char *source,
                       unsigned line);

// The content as a string: as DynBuf_Detach, with a NUL behind the bytes, which `size` does not
// count.  Never null; having no room for the NUL is fatal.
[[nodiscard]] inline char *DynBuf_DetachString(DynBuf *buf) {
  if (buf->size == buf->allocated && !DynBuf_Enlarge(buf, buf->size + 1)) {
    Fatal_VerifyMemAlloc("lib/public/dynbuf", 145);
  }
  buf->data[buf->size] = '\0';
  return DynBuf_Detach(buf);
}

// ---- for a scope -----------------------------------------------------------------------------

// A buffer that is empty at first and destroyed with its scope.
struct ScopedDynBuf : DynBuf {
  ScopedDynBuf() noexcept { DynBuf_Init(this); }
  ScopedDynBuf(const ScopedDynBuf &) = delete;
  ScopedDynBuf &operator=(const ScopedDynBuf &) = delete;
  ~ScopedDynBuf() { DynBuf_Destroy(this); }
};
