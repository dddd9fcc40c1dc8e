// formatBind.cpp -- stage 2 of formatting.

#include "lib/string/formatBind.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace {

// The type of the argument at each position, as a format uses them; the last use counts.
class TypeTable {
  static constexpr size_t kFrameSize = 8;

  FormatArgType inFrame_[kFrameSize] = {};
  HeapArray<FormatArgType> inHeap_;
  FormatArgType *types_ = inFrame_;
  size_t size_ = kFrameSize;
  size_t last_ = 0;

 public:
  void Record(size_t position, FormatArgType type) {
    if (position >= size_) Grow(position);
    types_[position] = type;
    last_ = std::max(last_, position);
  }

  size_t Last() const { return last_; }
  FormatArgType At(size_t position) const { return types_[position]; }

 private:
  void Grow(size_t position) {
    const size_t size = std::max(2 * size_, position + 1);
    // From null, realloc allocates; then the table in the frame is copied.
    void *const grown = realloc(inHeap_.get(), size * sizeof *types_);
    if (grown == nullptr) abort();
    static_cast<void>(inHeap_.release());
    inHeap_.reset(static_cast<FormatArgType *>(grown));
    if (types_ == inFrame_) std::copy_n(inFrame_, kFrameSize, inHeap_.get());
    types_ = inHeap_.get();
    std::fill(types_ + size_, types_ + size, FormatArgType::None);
    size_ = size;
  }
};

FormatArgType IntegerType(FormatSize size) {
  switch (size) {
    case FormatSize::None:
    case FormatSize::Char:
    case FormatSize::Short:
    case FormatSize::Int:
      return FormatArgType::Int;
    default:
      return FormatArgType::Int64;
  }
}

FormatArgType TypeOf(const FormatConversion &conversion) {
  switch (conversion.kind) {
    case FormatKind::Signed:
    case FormatKind::Unsigned:
    case FormatKind::Octal:
    case FormatKind::Hex:
      return IntegerType(conversion.size);
    case FormatKind::Char:
      return FormatArgType::Int;
    case FormatKind::Float:
      return conversion.size == FormatSize::LongLong ? FormatArgType::LongDouble
                                                     : FormatArgType::Double;
    case FormatKind::String:
    case FormatKind::Pointer:
    case FormatKind::Count:
      return FormatArgType::Pointer;
    default:
      return FormatArgType::None;
  }
}

void ReadTypes(const char *format, TypeTable *types) {
  FormatTurn turn;
  for (const char *at = format; *(at = FormatGrammar_Find(at)) != '\0';) {
    FormatConversion c;
    at = FormatGrammar_Parse(at, &c);
    if (c.kind == FormatKind::End) break;
    for (const FormatCount &count : {c.width, c.precision}) {
      if (count.source != FormatCount::Argument) continue;
      types->Record(turn.OfCount(count.number), FormatArgType::Int);
    }
    const FormatArgType type = TypeOf(c);
    if (type != FormatArgType::None) types->Record(turn.OfValue(c.position), type);
  }
}

// A position that the format never names is passed over as an int.
FormatValue FetchNext(FormatArgList &args, FormatArgType type) {
  FormatValue value{};
  switch (type) {
    case FormatArgType::None:
    case FormatArgType::Int:
      value.integer = va_arg(args.list, int);
      break;
    case FormatArgType::Int64:
      value.integer = va_arg(args.list, int64_t);
      break;
    case FormatArgType::Pointer:
      value.pointer = va_arg(args.list, const void *);
      break;
    case FormatArgType::Double:
      value.real = va_arg(args.list, double);
      break;
    case FormatArgType::LongDouble:
      value.real = static_cast<double>(va_arg(args.list, long double));
      break;
  }
  return value;
}

}  // namespace

FormatBinder::FormatBinder(const char *format, va_list args) : format_(format) {
  va_copy(first_.list, args);
  va_copy(next_.list, args);
}

FormatBinder::FormatBinder(std::span<const FormatValue> values)
    : positional_(true), values_(values) {}

FormatBinder::~FormatBinder() {
  if (format_ == nullptr) return;
  va_end(first_.list);
  va_end(next_.list);
}

bool FormatBinder::Bind(const FormatConversion &conversion, FormatField *field,
                        FormatValue *value) {
  if (conversion.Has(kFormatPositions) && !positional_ && !SwitchToPositions()) return false;
  field->kind = conversion.kind;
  field->size = conversion.size;
  field->flags = conversion.flags;
  field->character = conversion.character;
  if (!FetchCount(conversion.width, 0, &field->width)) return false;
  if (field->width < 0) {
    field->flags |= kFormatLeft;
    field->width = field->width == INT_MIN ? INT_MAX : -field->width;
  }
  if (!FetchCount(conversion.precision, -1, &field->precision)) return false;
  const FormatArgType type = TypeOf(conversion);
  return type == FormatArgType::None || Fetch(type, turn_.OfValue(conversion.position), value);
}

bool FormatBinder::SwitchToPositions() {
  TypeTable types;
  ReadTypes(format_, &types);
  FormatValue *values = inFrame_;
  if (types.Last() > std::size(inFrame_)) {
    inHeap_ = Heap_Array<FormatValue>(types.Last());
    if (!inHeap_) return false;
    values = inHeap_.get();
  }
  for (size_t i = 0; i < types.Last(); ++i) values[i] = FetchNext(first_, types.At(i + 1));
  values_ = {values, types.Last()};
  positional_ = true;
  return true;
}

bool FormatBinder::Fetch(FormatArgType type, size_t position, FormatValue *value) {
  if (!positional_) {
    *value = FetchNext(next_, type);
    return true;
  }
  if (position > values_.size()) return false;
  *value = values_[position - 1];
  return true;
}

bool FormatBinder::FetchCount(const FormatCount &count, int absent, int *number) {
  if (count.source != FormatCount::Argument) {
    *number = count.source == FormatCount::Literal ? count.number : absent;
    return true;
  }
  FormatValue value;
  if (!Fetch(FormatArgType::Int, turn_.OfCount(count.number), &value)) return false;
  *number = static_cast<int>(value.integer);
  return true;
}
