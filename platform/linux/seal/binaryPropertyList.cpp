// binaryPropertyList.cpp -- finds one string in a property list in binary form.
//
// Format: objects may be anywhere in the file.  A table of offsets numbers them; the trailer, the last
//         32 bytes, says where the table is and how wide its entries are.  An object begins with a byte
//         that holds its kind and its size, or a mark that an integer with the size follows.  A
//         dictionary of n entries has the object numbers of its n keys, then those of its n values.
//         Numbers are big-endian, 1, 2, 4 or 8 bytes wide in objects, 1 to 8 in tables.
// Invariants:
//   The list is untrusted.  Every offset and number is checked against the size of the list, in 64
//   bits, before it is used.  References are followed only from the dictionary to its keys and values,
//   so the work is bounded by the size of the list.
// Tests:  tests/unit/bundleIdentifier_test.cpp, fuzz/seal_fuzz.cpp

#include "platform/linux/seal/binaryPropertyList.h"

#include <cstdint>
#include <optional>

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr size_t kTrailerSize = 32;

enum Kind : unsigned { kInteger = 0x1, kAscii = 0x5, kDictionary = 0xd };
constexpr unsigned kSizeFollows = 0xf;

struct Object {
  unsigned kind;
  uint64_t count;  // of bytes, or of entries
  uint64_t at;     // of what follows the size
};

class Reader {
  std::string_view list_;  // objects and the table, without the trailer
  uint64_t offsetWidth_ = 0;
  uint64_t numberWidth_ = 0;
  uint64_t objects_ = 0;
  uint64_t top_ = 0;
  uint64_t table_ = 0;

  std::optional<uint64_t> Number(std::string_view bytes, uint64_t at, uint64_t width) const {
    if (width == 0 || width > 8 || at > bytes.size() || width > bytes.size() - at) return {};
    uint64_t number = 0;
    for (const char c : bytes.substr(at, width)) number = number << 8 | static_cast<uint8_t>(c);
    return number;
  }

  // Whether the list has `count` elements of `width` bytes at `at`.
  bool Holds(uint64_t at, uint64_t count, uint64_t width) const {
    return at <= list_.size() && count <= (list_.size() - at) / width;
  }

  std::optional<Object> ObjectAt(uint64_t at) const {
    const auto marker = Number(list_, at, 1);
    if (!marker) return {};
    const Object object = {static_cast<unsigned>(*marker >> 4), *marker & 0xf, at + 1};
    if (object.kind == kInteger || object.count != kSizeFollows) return object;
    const auto integer = Number(list_, at + 1, 1);
    if (!integer || *integer >> 4 != kInteger || (*integer & 0xf) > 3) return {};
    const uint64_t width = uint64_t{1} << (*integer & 0xf);
    const auto count = Number(list_, at + 2, width);
    if (!count) return {};
    return Object{object.kind, *count, at + 2 + width};
  }

  std::optional<Object> ObjectOf(std::optional<uint64_t> number) const {
    if (!number || *number >= objects_) return {};
    const auto at = Number(list_, table_ + *number * offsetWidth_, offsetWidth_);
    if (!at) return {};
    return ObjectAt(*at);
  }

  // Empty for any object but an ASCII string.
  std::string_view AsciiOf(std::optional<uint64_t> number) const {
    const auto object = ObjectOf(number);
    if (!object || object->kind != kAscii || !Holds(object->at, object->count, 1)) return {};
    return list_.substr(object->at, object->count);
  }

 public:
  bool Open(std::string_view list) {
    if (!BinaryPropertyList_Is(list) || list.size() < kMagic.size() + kTrailerSize) return false;
    const std::string_view trailer = list.substr(list.size() - kTrailerSize);
    list_ = list.substr(0, list.size() - kTrailerSize);
    offsetWidth_ = *Number(trailer, 6, 1);
    numberWidth_ = *Number(trailer, 7, 1);
    objects_ = *Number(trailer, 8, 8);
    top_ = *Number(trailer, 16, 8);
    table_ = *Number(trailer, 24, 8);
    return offsetWidth_ - 1 < 8 && numberWidth_ - 1 < 8 && Holds(table_, objects_, offsetWidth_);
  }

  std::string_view Find(std::string_view key) const {
    const auto dictionary = ObjectOf(top_);
    if (!dictionary || dictionary->kind != kDictionary ||
        !Holds(dictionary->at, dictionary->count, 2 * numberWidth_)) {
      return {};
    }
    const uint64_t width = numberWidth_;
    const uint64_t values = dictionary->at + dictionary->count * width;
    std::string_view found;
    for (uint64_t i = 0; i < dictionary->count; i++) {
      if (AsciiOf(Number(list_, dictionary->at + i * width, width)) != key) continue;
      if (!found.empty()) return {};
      found = AsciiOf(Number(list_, values + i * width, width));
      if (found.empty()) return {};
    }
    return found;
  }
};

}  // namespace

bool BinaryPropertyList_Is(std::string_view list) {
  return list.starts_with(kMagic);
}

HeapStr BinaryPropertyList_Find(std::string_view list, std::string_view key) {
  Reader reader;
  errno = ENODATA;
  if (!reader.Open(list)) return nullptr;
  const std::string_view text = reader.Find(key);
  if (text.empty() || text.find('\0') != text.npos) return nullptr;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) > 0x7f) return nullptr;
  }
  return HeapStr(strndup(text.data(), text.size()));
}
