// formatBind.cpp -- stage 2 of formatting.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include "lib/string/formatBind.h"

#include <algorithm>
#include <cerrno>
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

  // A position that the format passes over counts as an int.
  FormatArgType At(size_t position) const {
    return types_[position] == FormatArgType::None ? FormatArgType::Int : types_[position];
  }

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

// The types that `format` asks for.  False with errno EINVAL when it names a position out of range.
bool ReadTypes(const char *format, TypeTable *types) {
  for (FormatWalk walk(format); walk.Next();) {
    const FormatPlaces &places = walk.Places();
    if (std::max({places.width, places.precision, places.value}) > kFormatMaxPosition) {
      errno = EINVAL;
      return false;
    }
    if (places.width != 0) types->Record(places.width, FormatArgType::Int);
    if (places.precision != 0) types->Record(places.precision, FormatArgType::Int);
    if (places.value != 0) types->Record(places.value, FormatArgTypeOf(walk.Conversion()));
  }
  return true;
}

}  // namespace

bool FormatBinder::BindGeneral(FormatConversion *conversion, FormatValue *value) {
  if (conversion->Has(kFormatPositions) && next_ != nullptr && !SwitchToPositions()) return false;
  const FormatPlaces places = turn_.PlacesOf(*conversion);
  if (conversion->Has(kFormatStar) && !FetchCounts(conversion, places)) return false;
  return places.value == 0 || Fetch(FormatArgTypeOf(*conversion), places.value, value);
}

bool FormatBinder::SwitchToPositions() {
  TypeTable types;
  if (!ReadTypes(format_, &types)) return false;
  FormatArgList first = first_;
  FormatValue *values = inFrame_;
  if (types.Last() > std::size(inFrame_)) {
    inHeap_ = Heap_Array<FormatValue>(types.Last());
    if (!inHeap_) return false;
    values = inHeap_.get();
  }
  for (size_t i = 0; i < types.Last(); ++i) values[i] = FormatFetch(&first, types.At(i + 1));
  values_ = {values, types.Last()};
  next_ = nullptr;
  return true;
}

bool FormatBinder::Fetch(FormatArgType type, size_t position, FormatValue *value) {
  if (next_ != nullptr) {
    *value = FormatFetch(next_, type);
    return true;
  }
  if (position > values_.size()) {
    errno = EINVAL;
    return false;
  }
  *value = values_[position - 1];
  return true;
}

bool FormatBinder::FetchCounts(FormatConversion *conversion, const FormatPlaces &places) {
  FormatCount *const width = &conversion->width;
  if (!FetchCount(width, places.width)) return false;
  if (width->number < 0) {
    conversion->flags |= kFormatLeft;
    width->number = width->number == INT_MIN ? INT_MAX : -width->number;
  }
  FormatCount *const precision = &conversion->precision;
  if (!FetchCount(precision, places.precision)) return false;
  if (precision->number < 0) *precision = {};
  return true;
}

bool FormatBinder::FetchCount(FormatCount *count, size_t place) {
  if (place == 0) return true;
  FormatValue value;
  if (!Fetch(FormatArgType::Int, place, &value)) return false;
  *count = {FormatCount::Literal, static_cast<int>(value.integer)};
  return true;
}
