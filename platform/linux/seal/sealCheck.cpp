// sealCheck.cpp -- checks an item against its seal.
//
// The signature is verified first: before that, anybody may have written the seal, and no other part of
// it is read.  Then the item is compared with the list.
// Tests: tests/system/codeseal_test, tests/unit/seal_test.cpp

#include "platform/linux/seal/sealCheck.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <memory>

#include "lib/public/errnoKeeper.h"
#include "platform/linux/seal/sealDigest.h"
#include "platform/linux/seal/sealSignature.h"
#include "platform/linux/seal/sealText.h"
#include "platform/linux/seal/sealWalk.h"

namespace {

constexpr size_t kMaxAnchors = size_t{1} << 20;

// After a failed call: `verdict` if errno says something about the item, otherwise Unreadable.
SealVerdict FailureOf(SealVerdict verdict) {
  return SmallFileIsItemsFault(errno) ? verdict : SealVerdict::Unreadable;
}

bool ReadAttribute(int fd, SmallFileBytes *seal) {
  const ssize_t size = fgetxattr(fd, kSealAttribute, nullptr, 0);
  if (size == 0) errno = ENODATA;
  if (size <= 0) return false;
  SmallFileBytes found{Heap_Array<char>(static_cast<size_t>(size))};
  if (found.data == nullptr) return false;
  const ssize_t n = fgetxattr(fd, kSealAttribute, found.data.get(), static_cast<size_t>(size));
  if (n < 0) return false;
  found.size = static_cast<size_t>(n);
  *seal = std::move(found);
  return true;
}

// Compares what is there with what is listed.
struct Comparison {
  const SealText &text;
  HeapArray<bool> seen;  // for each item of the text
  size_t count = 0;      // of items seen
  SealVerdict verdict = SealVerdict::Valid;

  SealVerdict Judge(const SealItem *item, const SealFound &found) {
    if (item == nullptr) return SealVerdict::Unlisted;
    bool &before = seen[static_cast<size_t>(item - text.items.get())];
    // An entry that turns up twice was moved during the walk.
    if (before || (item->target == nullptr) != (found.target == nullptr)) {
      return SealVerdict::Changed;
    }
    before = true;
    count++;
    if (item->target != nullptr) {
      return strcmp(item->target, found.target) == 0 ? SealVerdict::Valid : SealVerdict::Changed;
    }
    return JudgeFile(*item, found.fd);
  }

  // A file of another size is not read; of one that grows meanwhile, at most one byte more is read.
  static SealVerdict JudgeFile(const SealItem &item, int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0) return SealVerdict::Unreadable;
    if (static_cast<uint64_t>(info.st_size) != item.size) return SealVerdict::Changed;
    SealDigest digest;
    uint64_t size = 0;
    if (!SealDigestOf(fd, item.size + 1, &digest, &size)) return SealVerdict::Unreadable;
    return size == item.size && digest == item.digest ? SealVerdict::Valid : SealVerdict::Changed;
  }

  static bool Visit(void *context, const SealFound &found) {
    auto *const self = static_cast<Comparison *>(context);
    self->verdict = self->Judge(SealFind(self->text, found.path), found);
    return self->verdict == SealVerdict::Valid;
  }
};

// The first listed item that the walk has not come across.
const char *FirstMissing(const Comparison &comparison) {
  size_t at = 0;
  while (comparison.seen[at]) at++;
  return comparison.text.items[at].path;
}

SealVerdict CompareFile(int item, Comparison *comparison) {
  (void)Comparison::Visit(comparison, {kSealSinglePath, item, nullptr});
  if (comparison->verdict != SealVerdict::Valid) return comparison->verdict;
  return comparison->count == comparison->text.count ? SealVerdict::Valid : SealVerdict::Missing;
}

SealVerdict CompareTree(int item, Comparison *comparison, uint64_t *entries, HeapStr *where) {
  SealWalk walk(Comparison::Visit, comparison);
  const bool complete = walk.Below(item);
  SealVerdict verdict = comparison->verdict;
  if (verdict == SealVerdict::Valid && !complete) verdict = FailureOf(SealVerdict::Unsealable);
  const bool ended = verdict != SealVerdict::Valid;
  if (!ended && comparison->count != comparison->text.count) verdict = SealVerdict::Missing;
  *entries = walk.Entries();
  if (where != nullptr && verdict != SealVerdict::Valid) {
    const ErrnoKeeper keeper;
    where->reset(strdup(ended ? walk.Path() : FirstMissing(*comparison)));
  }
  return verdict;
}

SealVerdict Compare(int item, const SealText &text, uint64_t *entries, HeapStr *where) {
  Comparison comparison{text, Heap_Array<bool>(text.count)};
  if (comparison.seen == nullptr) return SealVerdict::Unreadable;
  std::uninitialized_fill_n(comparison.seen.get(), text.count, false);
  *entries = 0;
  return SealIsDirectory(item) ? CompareTree(item, &comparison, entries, where)
                               : CompareFile(item, &comparison);
}

}  // namespace

SealVerdict SealReadAnchors(int start, const char *path, SmallFileBytes *anchors) {
  const Fd fd = SmallFileOpen(start, path, SmallFileOnlyRootMayWrite);
  return fd && SmallFileRead(fd.Get(), kMaxAnchors, anchors) ? SealVerdict::Valid
                                                             : SealVerdict::NoAnchors;
}

SealVerdict SealRead(int item, SmallFileBytes *seal) {
  if (!SealIsDirectory(item)) {
    return ReadAttribute(item, seal) ? SealVerdict::Valid : FailureOf(SealVerdict::NoSeal);
  }
  const Fd fd = SmallFileOpen(item, kSealFile, SmallFileAny);
  return fd && SmallFileRead(fd.Get(), kSealMaxSize, seal) ? SealVerdict::Valid
                                                           : FailureOf(SealVerdict::NoSeal);
}

SealVerdict SealCheck(int item, const char *identifier, std::string_view anchors,
                      SealExtent *extent, HeapStr *where) {
  SmallFileBytes seal;
  SmallFileBytes content;
  SealVerdict verdict = SealRead(item, &seal);
  if (verdict == SealVerdict::Valid) verdict = SealOpen(seal.View(), anchors, &content);
  if (verdict != SealVerdict::Valid) return verdict;
  SealText text;
  verdict = SealParse(content.View(), &text);
  if (verdict != SealVerdict::Valid) return verdict;
  if (strcmp(text.identifier, identifier) != 0) return SealVerdict::OtherName;
  *extent = {text.bytes + (SealIsDirectory(item) ? seal.size : 0), 0};
  return Compare(item, text, &extent->entries, where);
}
