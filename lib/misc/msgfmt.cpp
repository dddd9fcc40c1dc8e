// msgfmt.cpp -- captures the arguments of a format.
//
// Three steps: scan the format for the type at every position; fetch the arguments, which can only
// be done from the first on and knowing each type; copy the strings.  Strings come last because a
// precision may be an argument behind its string, and no more of a string may be read than that.

#include "msgfmt.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <type_traits>
#include <utility>

#include "err.h"
#include "fatal.h"
#include "heap.h"
#include "lib/misc/msgfmtInternal.h"
#include "str.h"

namespace {

// A va_list as a parameter is: on some hosts the list itself, on others a pointer to it.
using ArgList = std::decay_t<va_list>;

// What can be wrong with a format as such.
enum class Status : int { Ok, FormatError, OutOfMemory, BadPosition };

// ---- memory ---------------------------------------------------------------------------------

// The caller's buffer, used up from its start.
class Buffer {
  char *begin_;
  char *at_;
  char *end_;

 public:
  Buffer(void *bytes, size_t size)
      : begin_(static_cast<char *>(bytes)), at_(begin_), end_(begin_ + size) {}

  size_t Used() const { return static_cast<size_t>(at_ - begin_); }

  // Uninitialised room for `count` objects; null when there is none.
  template <typename T>
  T *Allocate(size_t count) {
    const size_t gap = -reinterpret_cast<uintptr_t>(at_) & (alignof(T) - 1);
    const auto room = static_cast<size_t>(end_ - at_);
    if (gap > room || count > (room - gap) / sizeof(T)) return nullptr;
    char *const object = at_ + gap;
    at_ = object + count * sizeof(T);
    return reinterpret_cast<T *>(object);
  }

  void Clear() { at_ = begin_; }

  // The first text of an empty buffer, cut to its size; null when it has none.
  __attribute__((format(printf, 2, 0))) char *Format(const char *format, va_list args) {
    const auto size = static_cast<size_t>(end_ - begin_);
    if (size == 0) return nullptr;
    static_cast<void>(Str_Vsnprintf(begin_, size, format, args));
    at_ = begin_ + strlen(begin_) + 1;
    return begin_;
  }
};

// ---- the capture ----------------------------------------------------------------------------

// The wider of two precisions, of which -1 is the widest.
int32_t WiderPrecision(int32_t a, int32_t b) {
  return static_cast<int32_t>(std::max(static_cast<uint32_t>(a), static_cast<uint32_t>(b)));
}

class Capture {
  Buffer *const buffer_;  // null: blocks from malloc
  char **const error_;
  HeapArray<MsgFmt_Arg> inHeap_;
  MsgFmt_Arg *args_ = nullptr;
  size_t capacity_ = 0;
  size_t count_ = 0;
  size_t copied_ = 0;  // so many records have a string of their own

 public:
  Capture(Buffer *buffer, char **error) : buffer_(buffer), error_(error) {
    if (error_ != nullptr) *error_ = nullptr;
  }
  Capture(const Capture &) = delete;
  Capture &operator=(const Capture &) = delete;
  ~Capture() { Drop(); }

  // From now on there are records up to `position`; new ones are all zero.
  [[nodiscard]] bool Cover(size_t position);
  MsgFmt_Arg &At(size_t position) { return args_[position - 1]; }

  [[nodiscard]] bool Fetch(ArgList *list);
  [[nodiscard]] bool CopyStrings();

  // Gives up the records and leaves the text to the caller of MsgFmt_GetArgs.  Always false.
  bool Fail(const char *format, ...) __attribute__((format(printf, 2, 3)));

  void HandOver(MsgFmt_Arg **args, int *numArgs);

 private:
  void Drop();
  [[nodiscard]] bool Grow(size_t position);
  [[nodiscard]] bool FetchOne(ArgList *list, MsgFmt_Arg *arg);
  template <typename Unit>
  [[nodiscard]] bool CopyString(Unit **string, size_t length);
  [[nodiscard]] bool CopyStringOf(MsgFmt_Arg *arg);
};

void Capture::Drop() {
  MsgFmt_FreeArgs(inHeap_.release(), static_cast<int>(copied_));
  args_ = nullptr;
  capacity_ = count_ = copied_ = 0;
}

void Capture::HandOver(MsgFmt_Arg **args, int *numArgs) {
  static_cast<void>(inHeap_.release());
  *args = args_;
  *numArgs = static_cast<int>(count_);
}

bool Capture::Fail(const char *format, ...) {
  Drop();
  if (buffer_ != nullptr) buffer_->Clear();
  if (error_ == nullptr) return false;
  va_list args;
  va_start(args, format);
  *error_ =
      buffer_ != nullptr ? buffer_->Format(format, args) : Str_Vasprintf(nullptr, format, args);
  va_end(args);
  if (buffer_ == nullptr && *error_ == nullptr) Fatal_Verify(kMsgFmtSource, 1580);
  return false;
}

bool Capture::Cover(size_t position) {
  if (position > INT_MAX || (position > capacity_ && !Grow(position))) return false;
  count_ = std::max(count_, position);
  return true;
}

bool Capture::Grow(size_t position) {
  if (buffer_ != nullptr) {
    // Nothing else is placed there before all records are, so new ones join the old.
    MsgFmt_Arg *const added = buffer_->Allocate<MsgFmt_Arg>(position - capacity_);
    if (added == nullptr) return false;
    if (args_ == nullptr) args_ = added;
    capacity_ = position;
    std::fill(added, args_ + capacity_, MsgFmt_Arg{});
    return true;
  }
  constexpr size_t kFewest = 4;
  const size_t capacity = std::max(kFewest, capacity_ + position);
  // From calloc: a position far out, which must be a mistake, costs addresses and no memory.
  HeapArray<MsgFmt_Arg> grown(static_cast<MsgFmt_Arg *>(calloc(capacity, sizeof(MsgFmt_Arg))));
  if (!grown) return false;
  std::copy_n(args_, count_, grown.get());
  inHeap_ = std::move(grown);
  args_ = inHeap_.get();
  capacity_ = capacity;
  return true;
}

bool Capture::Fetch(ArgList *list) {
  for (size_t position = 1; position <= count_; ++position) {
    if (FetchOne(list, &At(position))) continue;
    return Fail("MsgFmt_GetArgs: gap in arguments at position %d", static_cast<int>(position));
  }
  return true;
}

// Strings are still the caller's.  False for a record that no conversion asked for.
bool Capture::FetchOne(ArgList *list, MsgFmt_Arg *arg) {
  switch (arg->type) {
    case MSGFMT_ARG_INVALID:
      return false;
    case MSGFMT_ARG_INT32:
    case MSGFMT_ARG_PTR32:
      arg->v.signed32 = va_arg(*list, int32_t);
      return true;
    case MSGFMT_ARG_INT64:
    case MSGFMT_ARG_PTR64:
      arg->v.signed64 = va_arg(*list, int64_t);
      return true;
    case MSGFMT_ARG_FLOAT64:
      arg->v.float64 = va_arg(*list, double);
      return true;
    case MSGFMT_ARG_STRING8:
      arg->v.string8 = va_arg(*list, char *);
      return true;
    case MSGFMT_ARG_STRING16:
    case MSGFMT_ARG_STRING32:
      arg->v.string32 = va_arg(*list, wchar_t *);
      return true;
    default:
      Fatal_NotReached(kMsgFmtSource, 1020);
  }
}

bool Capture::CopyStrings() {
  for (; copied_ < count_; ++copied_) {
    if (!CopyStringOf(&args_[copied_])) return false;
  }
  return true;
}

bool Capture::CopyStringOf(MsgFmt_Arg *arg) {
  const bool isCut = arg->precision >= 0;
  const auto limit = static_cast<size_t>(arg->precision);
  if (MsgFmtIsString8(arg->type) && arg->v.string8 != nullptr) {
    char *const string = arg->v.string8;
    const int number = Err_StringToErrno(string);
    if (number != -1) {
      arg->type = MSGFMT_ARG_ERRNO;
      arg->errorKind = MSGFMT_ERROR_ERRNO;
      arg->errorNumber = number;
    }
    return CopyString(&arg->v.string8, isCut ? Str_Strlen(string, limit) : strlen(string));
  }
  if (MsgFmtIsString32(arg->type) && arg->v.string32 != nullptr) {
    wchar_t *const string = arg->v.string32;
    return CopyString(&arg->v.string32, isCut ? wcsnlen(string, limit) : wcslen(string));
  }
  return true;
}

template <typename Unit>
bool Capture::CopyString(Unit **string, size_t length) {
  Unit *const copy = buffer_ != nullptr ? buffer_->Allocate<Unit>(length + 1)
                                        : Heap_Array<Unit>(length + 1).release();
  if (copy == nullptr) return false;
  std::copy_n(*string, length, copy);
  copy[length] = Unit{};
  *string = copy;
  return true;
}

// ---- scanning -------------------------------------------------------------------------------

// An argument that a conversion asks for.
struct Request {
  size_t position = 0;
  MsgFmt_ArgType type = MSGFMT_ARG_INVALID;
  int32_t precision = -1;
  Status status = Status::Ok;
  // For error texts: the position as it is written, with its `$`, or nothing; and what follows it.
  const char *where = "";
  int whereLength = 0;
  const char *what = "";
  int whatLength = 0;

  explicit Request(const FormatWalk &walk) {
    const char *const digits = walk.Conversion().positionDigits;
    what = walk.Begin() + 1;
    if (digits != nullptr) {
      where = digits;
      what = strchr(digits, '$') + 1;
      whereLength = static_cast<int>(what - where);
    }
    whatLength = static_cast<int>(walk.End() - what);
  }
};

// The single letter for what a size modifier means, of those that some conversion refuses.
char LetterOf(FormatSize size) {
  return size == FormatSize::IntMax ? 'j' : 'L';
}

// Fails for a conversion whose value cannot be captured.
bool FailUnsupported(Capture &capture, const Request &r, const FormatConversion &conversion) {
  if (conversion.kind == FormatKind::Count) {
    return capture.Fail("MsgFmtGetArg1: %%n not supported, pos \"%.*s\", type \"%.*s\"",
                        r.whereLength, r.where, r.whatLength, r.what);
  }
  if (conversion.kind != FormatKind::Literal) {
    return capture.Fail("MsgFmtGetArg1: %%%c%c not supported, pos \"%.*s\", type \"%.*s\"",
                        LetterOf(conversion.size), conversion.character, r.whereLength, r.where,
                        r.whatLength, r.what);
  }
  capture.Fail("MsgFmtGetArg1: %%%c not understood, pos \"%.*s\", type \"%.*s\"",
               conversion.character, r.whereLength, r.where, r.whatLength, r.what);
  Fatal_NotReached(kMsgFmtSource, 1345);
}

// Notes the type of the argument at the position.
bool MsgFmtGetArg1(Capture &capture, const Request &r, const FormatConversion &conversion) {
  const int position = static_cast<int>(r.position);
  if (r.status != Status::Ok) {
    return capture.Fail("MsgFmtGetArg1: bad specifier, status %d, pos \"%.*s\", type \"%.*s\"",
                        static_cast<int>(r.status), r.whereLength, r.where, r.whatLength, r.what);
  }
  if (!capture.Cover(r.position)) {
    return capture.Fail("MsgFmtGetArg1: out of memory at arg %d", position);
  }
  if (r.type == MSGFMT_ARG_INVALID) return FailUnsupported(capture, r, conversion);
  MsgFmt_Arg &arg = capture.At(r.position);
  if (arg.type != MSGFMT_ARG_INVALID && arg.type != r.type) {
    return capture.Fail(
        "MsgFmtGetArg1: incompatible specifiers for argument %d, old type %d, new type %d, pos "
        "\"%.*s\", type \"%.*s\"",
        position, arg.type, r.type, r.whereLength, r.where, r.whatLength, r.what);
  }
  arg.type = r.type;
  arg.precision = WiderPrecision(arg.precision, r.precision);
  return true;
}

bool FailByStatus(Capture &capture, Status status) {
  switch (status) {
    case Status::FormatError:
      return capture.Fail("MsgFmt_GetArgs: error in format string");
    case Status::OutOfMemory:
      return capture.Fail("MsgFmt_GetArgs: out of memory");
    default:
      return capture.Fail("MsgFmt_GetArgs: error %d", static_cast<int>(status));
  }
}

// The parser counts a number that is too large as the largest.
Status StatusOf(int position) {
  return position == INT_MAX ? Status::BadPosition : Status::Ok;
}

// The arguments of one conversion.
bool ScanOne(Capture &capture, const FormatWalk &walk) {
  const FormatConversion &conversion = walk.Conversion();
  const FormatPlaces &places = walk.Places();
  if (conversion.kind == FormatKind::End) return FailByStatus(capture, Status::FormatError);
  Request request(walk);
  for (const auto &[count, place] : {std::pair{conversion.width, places.width},
                                     std::pair{conversion.precision, places.precision}}) {
    if (place == 0) continue;
    request.position = place;
    request.type = kMsgFmtCountType;
    request.status = StatusOf(count.number);
    if (!MsgFmtGetArg1(capture, request, conversion)) return false;
  }
  if (conversion.character == '%') return true;
  request.position = places.value;
  request.type = MsgFmtTypeOf(conversion);
  request.status = StatusOf(conversion.position);
  if (conversion.kind == FormatKind::String && conversion.HasPrecision()) {
    // One that is an argument is not known yet: WidenStrings.
    request.precision = places.precision != 0 ? 0 : conversion.precision.number;
  }
  return MsgFmtGetArg1(capture, request, conversion);
}

// *hasUnknown: some strings have precisions that are arguments.
bool Scan(Capture &capture, const char *format, bool *hasUnknown) {
  for (FormatWalk walk(format); walk.Next();) {
    if (!ScanOne(capture, walk)) return false;
    const bool isString = walk.Conversion().kind == FormatKind::String;
    *hasUnknown |= isString && walk.Places().precision != 0;
  }
  return true;
}

// Makes up for the precisions that are arguments, now that these are known.
void WidenStrings(Capture &capture, const char *format) {
  for (FormatWalk walk(format); walk.Next();) {
    const FormatPlaces &places = walk.Places();
    if (walk.Conversion().kind != FormatKind::String || places.precision == 0) continue;
    const int32_t precision = std::max(capture.At(places.precision).v.signed32, -1);
    MsgFmt_Arg &string = capture.At(places.value);
    string.precision = WiderPrecision(string.precision, precision);
  }
}

bool GetArgs(Capture &capture, const char *format, ArgList *list, MsgFmt_Arg **args, int *numArgs) {
  *args = nullptr;
  *numArgs = 0;
  bool hasUnknown = false;
  if (!Scan(capture, format, &hasUnknown) || !capture.Fetch(list)) return false;
  if (hasUnknown) WidenStrings(capture, format);
  if (!capture.CopyStrings()) return FailByStatus(capture, Status::OutOfMemory);
  capture.HandOver(args, numArgs);
  return true;
}

}  // namespace

bool MsgFmt_GetArgs(const char *format, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                    char **error) {
  Capture capture(nullptr, error);
  return GetArgs(capture, format, &args, argsOut, numArgs);
}

bool MsgFmt_GetArgsWithBuf(const char *format, va_list args, MsgFmt_Arg **argsOut, int *numArgs,
                           char **error, void *buffer, size_t *size) {
  Buffer room(buffer, *size);
  Capture capture(&room, error);
  const bool ok = GetArgs(capture, format, &args, argsOut, numArgs);
  *size = room.Used();
  return ok;
}
