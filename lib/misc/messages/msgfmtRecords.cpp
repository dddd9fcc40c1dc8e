// msgfmtRecords.cpp -- the types of captured arguments; copying and freeing of records.
//
// Tests: tests/unit/messages_test.cpp

#include <array>
#include <cstring>
#include <cwchar>
#include <span>

#include "lib/misc/messages/msgfmtInternal.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"

namespace {

// What the size modifiers mean to one kind of conversion: the types in the order of FormatSize,
//   none I32 hh h l ll j t z
// and the line to report for any other value.
struct TypeRow {
  std::array<MsgFmt_ArgType, 9> types;
  int line;
};

constexpr MsgFmt_ArgType kNone = MSGFMT_ARG_INVALID;
constexpr MsgFmt_ArgType kInt = MSGFMT_ARG_INT32;
constexpr MsgFmt_ArgType kLong = MSGFMT_ARG_INT64;
constexpr MsgFmt_ArgType kReal = MSGFMT_ARG_FLOAT64;
constexpr MsgFmt_ArgType kText = MSGFMT_ARG_STRING8;
constexpr MsgFmt_ArgType kWide = MSGFMT_ARG_STRING32;

constexpr TypeRow kIntegers = {{kInt, kInt, kInt, kInt, kLong, kLong, kLong, kLong, kLong}, 1192};
constexpr TypeRow kFloats = {{kReal, kReal, kReal, kReal, kReal, kNone, kNone, kReal, kReal}, 1233};
constexpr TypeRow kChars = {{kInt, kInt, kInt, kInt, kInt, kInt, kInt, kInt, kInt}, 1261};
constexpr TypeRow kStrings = {{kText, kText, kText, kText, kWide, kWide, kWide, kText, kText},
                              1289};

MsgFmt_ArgType TypeIn(const TypeRow &row, FormatSize size) {
  const auto column = static_cast<size_t>(size);
  if (column >= row.types.size()) Fatal_NotReached(kMsgFmtSource, row.line);
  return row.types[column];
}

// Captured strings are null or end in a zero.
void CopyString(MsgFmt_Arg *arg) {
  if (MsgFmtIsString8(arg->type) && arg->v.string8 != nullptr) {
    arg->v.string8 = Heap_SafeStrdup(arg->v.string8).release();
  } else if (MsgFmtIsString32(arg->type) && arg->v.string32 != nullptr) {
    const size_t size = (wcslen(arg->v.string32) + 1) * sizeof(wchar_t);
    arg->v.string32 = static_cast<wchar_t *>(memcpy(Heap_SafeMalloc(size), arg->v.string32, size));
  }
}

void FreeString(const MsgFmt_Arg &arg) {
  if (MsgFmtIsString8(arg.type)) HeapStr(arg.v.string8).reset();
  if (MsgFmtIsString32(arg.type)) HeapArray<wchar_t>(arg.v.string32).reset();
}

}  // namespace

MsgFmt_ArgType MsgFmtTypeOf(const FormatConversion &conversion) {
  switch (conversion.kind) {
    case FormatKind::Signed:
    case FormatKind::Unsigned:
    case FormatKind::Octal:
    case FormatKind::Hex:
      return TypeIn(kIntegers, conversion.size);
    case FormatKind::Char:
      return TypeIn(kChars, conversion.size);
    case FormatKind::String:
      return TypeIn(kStrings, conversion.size);
    case FormatKind::Float:
    case FormatKind::HexFloat:
      return TypeIn(kFloats, conversion.size);
    case FormatKind::Pointer:
      return MSGFMT_ARG_PTR64;
    case FormatKind::End:
    case FormatKind::Literal:
    case FormatKind::Count:
      break;
  }
  return MSGFMT_ARG_INVALID;
}

MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs) {
  if (numArgs == 0) return nullptr;
  const std::span<const MsgFmt_Arg> records(args, static_cast<size_t>(numArgs));
  auto *const copies = static_cast<MsgFmt_Arg *>(Heap_SafeMalloc(records.size_bytes()));
  memcpy(copies, args, records.size_bytes());
  for (size_t i = 0; i < records.size(); ++i) CopyString(&copies[i]);
  return copies;
}

void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs) {
  if (args == nullptr) return;
  const HeapArray<MsgFmt_Arg> owner(args);
  for (int i = 0; i < numArgs; ++i) FreeString(args[i]);
}
