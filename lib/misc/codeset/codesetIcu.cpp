// codesetIcu.cpp -- ICU as a conversion engine, and CodeSet_Init, which installs it.
//
// Only CodeSet_Init refers to the rest of this file, so a program that does not call it does not
// contain ICU.
// Tests: tests/unit/codeset_test.cpp

#include <sys/stat.h>
#include <unicode/putil.h>
#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>

#include <cerrno>
#include <iterator>
#include <memory>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/productDir.h"
#include "lib/public/str.h"

namespace {

struct Closer {
  void operator()(UConverter *converter) const noexcept { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, Closer>;

// Null, with *error set, when ICU does not know the name or memory runs out; null as well when *error is
// a failure already.
Converter Open(const char *name, UErrorCode *error) {
  return Converter(ucnv_open(name, error));
}

// ---- flags ----------------------------------------------------------------------------------

struct Callbacks {
  int flags;
  UConverterToUCallback toUnicode;
  UConverterFromUCallback fromUnicode;
};

// clang-format off
const Callbacks kCallbacks[] = {
    {CODESET_STOP,       UCNV_TO_U_CALLBACK_STOP,       UCNV_FROM_U_CALLBACK_STOP},
    {CODESET_SUBSTITUTE, UCNV_TO_U_CALLBACK_SUBSTITUTE, UCNV_FROM_U_CALLBACK_SUBSTITUTE},
    {CODESET_SKIP,       UCNV_TO_U_CALLBACK_SKIP,       UCNV_FROM_U_CALLBACK_SKIP},
};
// clang-format on

const Callbacks &CallbacksFor(int flags) {
  for (const Callbacks &row : kCallbacks) {
    if (row.flags == flags) return row;
  }
  Fatal_NotImplemented(kCodeSetSource, 988);
}

bool SetToUnicode(UConverter *converter, UConverterToUCallback callback) {
  UErrorCode error = U_ZERO_ERROR;
  ucnv_setToUCallBack(converter, callback, nullptr, nullptr, nullptr, &error);
  return U_SUCCESS(error);
}

bool SetFromUnicode(UConverter *converter, UConverterFromUCallback callback) {
  UErrorCode error = U_ZERO_ERROR;
  ucnv_setFromUCallBack(converter, callback, nullptr, nullptr, nullptr, &error);
  return U_SUCCESS(error);
}

// ---- the engine ------------------------------------------------------------------------------

int ErrnoOf(UErrorCode error) {
  if (U_SUCCESS(error)) return 0;
  return error == U_MEMORY_ALLOCATION_ERROR ? ENOMEM : EILSEQ;
}

// A first guess: room for as many bytes as the text has, and a terminator of any encoding.
bool ReserveFirst(DynBuf *out, size_t length) {
  constexpr size_t kTerminator = 4;
  size_t whole;
  if (__builtin_add_overflow(out->size, length, &whole)) return false;
  if (__builtin_add_overflow(whole, kTerminator, &whole)) return false;
  return whole <= out->allocated || DynBuf_Enlarge(out, whole);
}

bool ReserveTwice(DynBuf *out) {
  size_t twice;
  return !__builtin_mul_overflow(out->allocated, 2, &twice) && DynBuf_Enlarge(out, twice);
}

// ICU refuses ranges of 2^31 bytes and more, but converts a text in pieces of any size.  These are
// small, so that pieces are no rare case.
template <typename Char>
Char *PieceEnd(Char *begin, Char *end) {
  constexpr ptrdiff_t kPiece = 1 << 20;
  return end - begin > kPiece ? begin + kPiece : end;
}

// Converts through UTF-16.  The converters are new, and resetting them would lose what they have yet
// to write, such as the header of ISO-2022-KR.
int ConvertAll(UConverter *from, const char *bytes, size_t length, UConverter *to, DynBuf *out) {
  UChar pivot[1024];
  UChar *pivotSource = pivot;
  UChar *pivotTarget = pivot;
  const char *source = bytes;
  const char *const end = bytes + length;
  if (!ReserveFirst(out, length)) return ENOMEM;
  for (;;) {
    const char *const sourceLimit = PieceEnd(source, end);
    char *const room = out->data + out->allocated;
    char *target = out->data + out->size;
    const bool isLast = sourceLimit == end;
    UErrorCode error = U_ZERO_ERROR;
    ucnv_convertEx(to, from, &target, PieceEnd(target, room), &source, sourceLimit, pivot,
                   &pivotSource, &pivotTarget, std::end(pivot), false, isLast, &error);
    out->size = static_cast<size_t>(target - out->data);
    if (error == U_BUFFER_OVERFLOW_ERROR) {
      if (target == room && !ReserveTwice(out)) return ENOMEM;
    } else if (U_FAILURE(error) || isLast) {
      return ErrnoOf(error);
    }
  }
}

int Convert(const char *fromName, const char *bytes, size_t length, const char *toName, int flags,
            DynBuf *out) {
  UErrorCode error = U_ZERO_ERROR;
  const Converter from = Open(fromName, &error);
  const Converter to = Open(toName, &error);
  if (U_FAILURE(error)) return error == U_MEMORY_ALLOCATION_ERROR ? ENOMEM : EINVAL;
  const Callbacks &callbacks = CallbacksFor(flags);
  const bool isSet = SetToUnicode(from.get(), callbacks.toUnicode) &&
                     SetFromUnicode(to.get(), callbacks.fromUnicode);
  return isSet ? ConvertAll(from.get(), bytes, length, to.get(), out) : EINVAL;
}

bool IsValid(const char *bytes, size_t length, const char *name) {
  UErrorCode error = U_ZERO_ERROR;
  const Converter converter = Open(name, &error);
  if (converter == nullptr) Fatal_Verify(kCodeSetSource, 1723);
  if (!SetToUnicode(converter.get(), UCNV_TO_U_CALLBACK_STOP)) Fatal_Verify(kCodeSetSource, 1725);
  // Into no room at all: the text is valid if that is the only thing wrong.
  error = U_ZERO_ERROR;
  ucnv_toUChars(converter.get(), nullptr, 0, bytes, static_cast<int32_t>(length), &error);
  return error == U_BUFFER_OVERFLOW_ERROR;
}

constinit const CodeSetEngine kIcuEngine = {Convert, IsValid};

// ---- its data --------------------------------------------------------------------------------

constexpr char kLibraryRoot[] = "/Library/Application Support/Zephrin Calder Lumen";
constexpr char kIcuFolder[] = "/icu";

// The folder of ICU's data; null when the program has a look-up, and it finds none.
HeapStr DataFolder(const char *given) {
  if (given != nullptr) return Heap_SafeStrdup(given);
  const ProductDirLookup lookup = ProductDir_GetLookup();
  if (lookup != nullptr) return HeapStr(lookup("icuDir"));
  return HeapStr(Str_SafeAsprintf(nullptr, "%s%s", kLibraryRoot, kIcuFolder));
}

}  // namespace

bool CodeSet_Init(const char *icuDataDir) {
  const HeapStr folder = DataFolder(icuDataDir);
  if (folder == nullptr) return true;
  const HeapStr file(Str_SafeAsprintf(nullptr, "%s/%s", folder.get(), "icudt44l.dat"));
  struct stat status;
  if (stat(file.get(), &status) != 0 || S_ISDIR(status.st_mode)) return true;
  u_setDataDirectory(file.get());
  CodeSetInstallEngine(&kIcuEngine);
  return true;
}
