// msgfmtCapture.cpp -- the records of a capture: their memory, their values, their strings.
//
// Tests: tests/unit/messages_test.cpp

#include "lib/misc/messages/msgfmtCapture.h"

#include <algorithm>

#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/err.h"
#include "lib/public/fatal.h"

void MsgFmtCapture::Drop() {
  MsgFmt_FreeArgs(inHeap_.release(), static_cast<int>(copied_));
  args_ = nullptr;
  capacity_ = count_ = copied_ = 0;
}

void MsgFmtCapture::HandOver(MsgFmt_Arg **args, int *numArgs) {
  static_cast<void>(inHeap_.release());
  *args = args_;
  *numArgs = static_cast<int>(count_);
}

bool MsgFmtCapture::Fail(const char *format, ...) {
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

bool MsgFmtCapture::Cover(size_t position) {
  if (position > capacity_ && !Grow(position)) return false;
  count_ = std::max(count_, position);
  return true;
}

bool MsgFmtCapture::Grow(size_t position) {
  constexpr size_t kFewest = 4;
  size_t capacity = position;
  if (buffer_ != nullptr) {
    // Nothing else is placed there before all records are, so new ones join the old.
    MsgFmt_Arg *const added = buffer_->Allocate<MsgFmt_Arg>(capacity - capacity_);
    if (added == nullptr) return false;
    if (args_ == nullptr) args_ = added;
  } else {
    capacity = std::max(kFewest, capacity_ + position);
    HeapArray<MsgFmt_Arg> grown = Heap_Array<MsgFmt_Arg>(capacity);
    if (!grown) return false;
    std::copy_n(args_, capacity_, grown.get());
    inHeap_ = std::move(grown);
    args_ = inHeap_.get();
  }
  std::fill(args_ + capacity_, args_ + capacity, MsgFmt_Arg{});
  capacity_ = capacity;
  return true;
}

bool MsgFmtCapture::Fetch(MsgFmtArgList *list) {
  for (size_t position = 1; position <= count_; ++position) {
    if (FetchOne(list, &At(position))) continue;
    return Fail("MsgFmt_GetArgs: gap in arguments at position %d", static_cast<int>(position));
  }
  return true;
}

// Strings are still the caller's.  False for a record that no conversion asked for.
bool MsgFmtCapture::FetchOne(MsgFmtArgList *list, MsgFmt_Arg *arg) {
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

bool MsgFmtCapture::CopyStrings() {
  for (; copied_ < count_; ++copied_) {
    if (!CopyStringOf(&args_[copied_])) return false;
  }
  return true;
}

bool MsgFmtCapture::CopyStringOf(MsgFmt_Arg *arg) {
  const StringLimit limit(arg->precision);
  if (MsgFmtIsString8(arg->type) && arg->v.string8 != nullptr) {
    const char *const string = arg->v.string8;
    const size_t length = limit.LengthOf(string);
    const int number = Err_StringToErrno(string);
    // A text of the table that is cut is not that text any more.
    if (number != -1 && string[length] == '\0') {
      arg->type = MSGFMT_ARG_ERRNO;
      arg->errorKind = MSGFMT_ERROR_ERRNO;
      arg->errorNumber = number;
    }
    return CopyString(&arg->v.string8, length);
  }
  if (MsgFmtIsString32(arg->type) && arg->v.string32 != nullptr) {
    return CopyString(&arg->v.string32, limit.LengthOf(arg->v.string32));
  }
  return true;
}

template <typename Unit>
bool MsgFmtCapture::CopyString(Unit **string, size_t length) {
  Unit *const copy = buffer_ != nullptr ? buffer_->Allocate<Unit>(length + 1)
                                        : Heap_Array<Unit>(length + 1).release();
  if (copy == nullptr) return false;
  std::copy_n(*string, length, copy);
  copy[length] = Unit{};
  *string = copy;
  return true;
}
