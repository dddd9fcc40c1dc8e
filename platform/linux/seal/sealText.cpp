// sealText.cpp -- reads and writes the text inside a seal.
//
// Idea:  exactly the bytes that could end a word or a line, and '%' itself, are written as '%' and two
//        upper-case hexadecimal digits.  So each text has one meaning, and each meaning one text.
// Tests: tests/unit/seal_test.cpp, fuzz/seal_fuzz.cpp

#include "platform/linux/seal/sealText.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace {

constexpr std::string_view kFirstLine = "zephrin-codeseal 2\n";
constexpr std::string_view kOldFirstLine = "zephrin-codeseal 1\n";
constexpr std::string_view kIdentifier = "identifier ";
constexpr std::string_view kFile = "sha256 ";
constexpr std::string_view kLink = "link ";
constexpr std::string_view kUpper = "0123456789ABCDEF";
constexpr std::string_view kLower = "0123456789abcdef";
constexpr uint64_t kMaxBytes = std::numeric_limits<int64_t>::max();
constexpr size_t kMaxDigits = std::numeric_limits<int64_t>::digits10 + 1;

bool IsEscaped(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte <= ' ' || byte == 0x7F || byte == '%';
}

// ---- reading -----------------------------------------------------------------------------------

// Reads a text word by word and decodes words in place, since decoding never makes one longer.
class Reader {
  char *next_;
  char *const end_;

 public:
  Reader(char *text, size_t size) : next_(text), end_(text + size) {}

  bool AtEnd() const { return next_ == end_; }

  bool Skip(std::string_view word) {
    const std::string_view rest(next_, static_cast<size_t>(end_ - next_));
    if (!rest.starts_with(word)) return false;
    next_ += word.size();
    return true;
  }

  // A word and the byte `stop` after it; null if it is malformed or empty.
  const char *Word(char stop) {
    char *const begin = next_;
    char *out = begin;
    while (next_ != end_ && *next_ != stop) {
      if (!Byte(out++)) return nullptr;
    }
    if (next_ == end_ || out == begin) return nullptr;
    next_++;
    *out = '\0';
    return begin;
  }

  // A digest and the blank after it.
  bool Digest(SealDigest *digest) {
    if (static_cast<size_t>(end_ - next_) <= 2 * digest->size()) return false;
    for (uint8_t &byte : *digest) {
      if (!Hex(kLower, &byte)) return false;
    }
    return Skip(" ");
  }

  // A decimal number without leading zeros, at most kMaxBytes, and the blank after it.
  bool Size(uint64_t *size) {
    if (next_ == end_ || (*next_ == '0' && end_ - next_ > 1 && next_[1] != ' ')) return false;
    const auto [stop, error] = std::from_chars(next_, end_, *size);
    if (error != std::errc() || *size > kMaxBytes) return false;
    next_ += stop - next_;
    return Skip(" ");
  }

 private:
  // One byte of a word.
  bool Byte(char *out) {
    if (*next_ != '%') {
      *out = *next_++;
      return !IsEscaped(*out);
    }
    next_++;
    uint8_t byte = 0;
    if (end_ - next_ < 2 || !Hex(kUpper, &byte)) return false;
    *out = static_cast<char>(byte);
    return byte != 0 && IsEscaped(*out);
  }

  // Two digits; the caller has checked that there are two more bytes.
  bool Hex(std::string_view digits, uint8_t *byte) {
    const size_t high = digits.find(next_[0]);
    const size_t low = digits.find(next_[1]);
    next_ += 2;
    if (high == digits.npos || low == digits.npos) return false;
    *byte = static_cast<uint8_t>(high << 4 | low);
    return true;
  }
};

bool ReadItem(Reader *reader, SealItem *item) {
  *item = {};
  if (reader->Skip(kFile)) {
    if (!reader->Digest(&item->digest) || !reader->Size(&item->size)) return false;
  } else {
    item->target = reader->Skip(kLink) ? reader->Word(' ') : nullptr;
    if (item->target == nullptr) return false;
  }
  item->path = reader->Word('\n');
  return item->path != nullptr;
}

// Appends the item just read, if its path and its size may follow.
bool Follows(SealText *text) {
  const SealItem *const item = &text->items[text->count];
  if (text->count > 0 && strcmp(item[-1].path, item->path) >= 0) return false;
  if (item->size > kMaxBytes - text->bytes) return false;
  text->bytes += item->size;
  text->count++;
  return true;
}

// ---- writing -----------------------------------------------------------------------------------

// Writes into a buffer that has room for every byte to be escaped.
class Writer {
  char *next_;

 public:
  explicit Writer(char *out) : next_(out) {}

  const char *End() const { return next_; }

  void Text(std::string_view text) {
    next_ = static_cast<char *>(mempcpy(next_, text.data(), text.size()));
  }

  void Word(const char *word, char stop) {
    for (; *word != '\0'; word++) {
      if (IsEscaped(*word)) {
        *next_++ = '%';
        Hex(kUpper, static_cast<uint8_t>(*word));
      } else {
        *next_++ = *word;
      }
    }
    *next_++ = stop;
  }

  void Digest(const SealDigest &digest) {
    for (const uint8_t byte : digest) Hex(kLower, byte);
    *next_++ = ' ';
  }

  void Size(uint64_t size) {
    next_ = std::to_chars(next_, next_ + kMaxDigits, size).ptr;
    *next_++ = ' ';
  }

 private:
  void Hex(std::string_view digits, uint8_t byte) {
    *next_++ = digits[byte >> 4];
    *next_++ = digits[byte & 0xF];
  }
};

// An upper bound for the length of the item's line.
size_t RoomFor(const SealItem &item) {
  const size_t what =
      item.target == nullptr ? 2 * item.digest.size() + 1 + kMaxDigits : 3 * strlen(item.target);
  return kFile.size() + what + 1 + 3 * strlen(item.path) + 1;
}

}  // namespace

SealVerdict SealParse(std::string_view text, SealText *parsed) {
  if (text.starts_with(kOldFirstLine)) return SealVerdict::OldText;
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  if (lines < 2 || lines - 2 > kSealMaxItems || !text.ends_with('\n')) return SealVerdict::BadText;
  SealText result{Heap_Array<char>(text.size()), nullptr, Heap_Array<SealItem>(lines - 2)};
  if (result.strings == nullptr || result.items == nullptr) return SealVerdict::Unreadable;
  memcpy(result.strings.get(), text.data(), text.size());

  Reader reader(result.strings.get(), text.size());
  if (!reader.Skip(kFirstLine) || !reader.Skip(kIdentifier)) return SealVerdict::BadText;
  result.identifier = reader.Word('\n');
  if (result.identifier == nullptr) return SealVerdict::BadText;
  // Each item takes a whole line, so there is room for all.
  while (!reader.AtEnd()) {
    if (!ReadItem(&reader, &result.items[result.count]) || !Follows(&result)) {
      return SealVerdict::BadText;
    }
  }
  *parsed = std::move(result);
  return SealVerdict::Valid;
}

const SealItem *SealFind(const SealText &text, const char *path) {
  const auto items = text.Items();
  const auto found = std::ranges::partition_point(
      items, [path](const SealItem &item) { return strcmp(item.path, path) < 0; });
  return found != items.end() && strcmp(found->path, path) == 0 ? &*found : nullptr;
}

HeapArray<char> SealWrite(const char *identifier, std::span<const SealItem> items, size_t *size) {
  size_t room = kFirstLine.size() + kIdentifier.size() + 3 * strlen(identifier) + 1;
  for (const SealItem &item : items) room += RoomFor(item);
  HeapArray<char> text = Heap_Array<char>(room);
  if (text == nullptr) return nullptr;
  Writer writer(text.get());
  writer.Text(kFirstLine);
  writer.Text(kIdentifier);
  writer.Word(identifier, '\n');
  for (const SealItem &item : items) {
    writer.Text(item.target == nullptr ? kFile : kLink);
    if (item.target == nullptr) {
      writer.Digest(item.digest);
      writer.Size(item.size);
    } else {
      writer.Word(item.target, ' ');
    }
    writer.Word(item.path, '\n');
  }
  *size = static_cast<size_t>(writer.End() - text.get());
  return text;
}
