// hashTable_test.cpp -- hash tables of every kind against a model built on the C++ library's maps.

#include "hashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "heap.h"
#include "tests/support/capture.h"

namespace {

std::vector<const void *> Keys(const HashTable *table) {
  size_t count = 0;
  const HeapArray<const void *> keys(HashTable_KeyArray(table, &count));
  return std::vector<const void *>(keys.get(), keys.get() + count);
}

std::string Lower(std::string text) {
  for (char &c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// ---- bucket order: a second opinion, in 64-bit arithmetic by division -----------------------

constexpr uint64_t k2To32 = uint64_t{1} << 32;

uint64_t HashOf(const void *key, uint32_t keyType) {
  const auto number = reinterpret_cast<uintptr_t>(key);
  if (keyType == HASHTABLE_INT_KEY) return (number / k2To32 ^ number % k2To32) * 48271 % k2To32;
  const std::string text = static_cast<const char *>(key);
  uint64_t hash = 0;
  for (const char c : keyType == HASHTABLE_ISTRING_KEY ? Lower(text) : text) {
    hash ^= static_cast<unsigned char>(c);
    hash = hash * 32 % k2To32 + hash / (1 << 27);
  }
  return hash;
}

uint64_t Fold(uint64_t hash, uint64_t numBuckets) {
  while (hash >= numBuckets) hash = hash / numBuckets ^ hash % numBuckets;
  return hash;
}

// Inserts the keys and compares the order in which they come out: by bucket, the latest first.
void ExpectBucketOrder(uint32_t numBuckets, uint32_t keyType, std::vector<const void *> keys) {
  const HashTableOwner table(HashTable_Alloc(numBuckets, keyType, nullptr));
  for (const void *key : keys) ASSERT_TRUE(HashTable_Insert(table.get(), key, nullptr));
  std::reverse(keys.begin(), keys.end());
  std::stable_sort(keys.begin(), keys.end(), [=](const void *a, const void *b) {
    return Fold(HashOf(a, keyType), numBuckets) < Fold(HashOf(b, keyType), numBuckets);
  });
  EXPECT_EQ(keys, Keys(table.get()));
}

TEST(HashTable, EntriesComeInBucketOrder) {
  ASSERT_EQ(0x18840u, HashOf("ab", HASHTABLE_STRING_KEY));
  ASSERT_EQ(86u, Fold(0x18840, 128));
  ASSERT_EQ(0xC20u, HashOf("A", HASHTABLE_ISTRING_KEY));
  ASSERT_EQ(56u, Fold(0xC20, 128));

  std::mt19937_64 random(7);
  std::set<std::string> strings = {""};  // in upper case, so that no two differ in case only
  std::set<const void *> integers = {nullptr};
  while (strings.size() < 1000) {
    std::string text(random() % 12, 'x');
    for (char &c : text) c = static_cast<char>(toupper(static_cast<int>(random() % 255 + 1)));
    strings.insert(text);
    const uint64_t zeros = random() % 64;
    integers.insert(HashTable_IntKey(random() >> zeros));
  }
  std::vector<const void *> texts;
  for (const std::string &text : strings) texts.push_back(text.c_str());
  for (const uint32_t numBuckets : {2u, 128u, 2048u}) {
    ExpectBucketOrder(numBuckets, HASHTABLE_STRING_KEY, texts);
    ExpectBucketOrder(numBuckets, HASHTABLE_ISTRING_KEY, texts);
    ExpectBucketOrder(numBuckets, HASHTABLE_INT_KEY, {integers.begin(), integers.end()});
  }
}

// ---- random operations ----------------------------------------------------------------------

constexpr size_t kSteps = 1000;
std::vector<int> freed;  // how often each value was; values point into it
void CountFree(void *value) {
  ++*static_cast<int *>(value);
}

// A table, and what should be in it: a map from the key, as the table tells keys apart.
class ModelRun {
  std::mt19937 random_{11};
  const uint32_t keyType_;
  const bool copies_;
  HashTableOwner table_;
  std::vector<std::string> names_;  // what uncopied keys point to
  std::map<std::string, int *> model_;
  std::vector<int> toBeFreed_ = std::vector<int>(kSteps);

  void GivesUp(const int *value) {
    if (value != nullptr) toBeFreed_[static_cast<size_t>(value - freed.data())]++;
  }

  // What the model calls the key.
  std::string Name(const void *key) const {
    if (keyType_ == HASHTABLE_INT_KEY) return names_.at(reinterpret_cast<uintptr_t>(key));
    const std::string text = static_cast<const char *>(key);
    return keyType_ == HASHTABLE_ISTRING_KEY ? Lower(text) : text;
  }

  void Step(int *value) {
    const size_t place = random_() % names_.size();
    const std::string passing = names_[place];  // gone after the step
    const char *const text = copies_ ? passing.c_str() : names_[place].c_str();
    Operate(keyType_ == HASHTABLE_INT_KEY ? HashTable_IntKey(place) : text, value);
  }

  void Operate(const void *key, int *value) {
    HashTable *const table = table_.get();
    const std::string name = Name(key);
    const bool there = model_.contains(name);
    int *const old = there ? model_[name] : nullptr;
    void *found = nullptr;
    switch (random_() % 8) {
      case 0:
        EXPECT_EQ(!there, HashTable_Insert(table, key, value));
        model_.emplace(name, value);
        return;
      case 1:
        EXPECT_EQ(there ? old : value, HashTable_LookupOrInsert(table, key, value));
        model_.emplace(name, value);
        return;
      case 2:
        EXPECT_EQ(there, HashTable_ReplaceOrInsert(table, key, value));
        model_[name] = value;
        return GivesUp(old);
      case 3:
        EXPECT_EQ(there, HashTable_ReplaceIfEqual(table, key, old, value));
        if (there) model_[name] = value;
        return GivesUp(old);
      case 4:
        EXPECT_FALSE(HashTable_ReplaceIfEqual(table, key, &found, value));
        return;
      case 5:
        EXPECT_EQ(there, HashTable_Delete(table, key));
        model_.erase(name);
        return GivesUp(old);
      case 6:
        EXPECT_EQ(there, HashTable_LookupAndDelete(table, key, &found));
        model_.erase(name);
        break;
      default:
        EXPECT_EQ(there, HashTable_Lookup(table, key, &found));
    }
    EXPECT_EQ(old, found);
  }

  void CheckContent() const {
    const std::vector<const void *> keys = Keys(table_.get());
    size_t count = 0;
    const HeapArray<void *> values(HashTable_ValueArray(table_.get(), &count));
    ASSERT_EQ(model_.size(), count);
    ASSERT_EQ(model_.size(), keys.size());
    EXPECT_EQ(model_.size(), HashTable_GetNumElements(table_.get()));
    for (size_t i = 0; i < count; i++) EXPECT_EQ(model_.at(Name(keys[i])), values[i]);
  }

  void EmptyModel() {
    for (const auto &[name, value] : model_) GivesUp(value);
    model_.clear();
  }

 public:
  ModelRun(uint32_t numBuckets, uint32_t flags)
      : keyType_(flags & HASHTABLE_KEY_TYPE_MASK),
        copies_((flags & HASHTABLE_COPY_KEY) != 0),
        table_(HashTable_Alloc(numBuckets, flags, CountFree)) {
    for (int i = 0; i < 40; i++) {
      names_.push_back("Key" + std::to_string(i));
      names_.push_back("kEY" + std::to_string(i));
    }
  }

  void Run() {
    freed.assign(kSteps, 0);
    for (size_t i = 0; i < kSteps; i++) {
      Step(&freed[i]);
      if (i % 50 == 0) CheckContent();
      if (i != kSteps / 2) continue;
      HashTable_Clear(table_.get());
      EmptyModel();
      CheckContent();
    }
    table_.reset();
    EmptyModel();
    EXPECT_EQ(toBeFreed_, freed);
  }
};

TEST(HashTable, RandomOperationsAgreeWithAMap) {
  for (const uint32_t numBuckets : {0u, 1u, 2u, 128u}) {
    for (const uint32_t flags : {0u, 0x8u, 0x10u, 0x18u}) {
      for (const uint32_t keyType : {0u, 1u, 2u}) {
        SCOPED_TRACE(testing::Message() << numBuckets << " buckets, flags " << (flags | keyType));
        ModelRun(numBuckets, flags | keyType).Run();
      }
    }
  }
}

// ---- edges ----------------------------------------------------------------------------------

TEST(HashTable, AWalkEndsAtTheFirstResultButZero) {
  const HashTableOwner table(HashTable_Alloc(128, HASHTABLE_STRING_KEY, nullptr));
  for (const char *key : {"a", "ab", ""}) HashTable_Insert(table.get(), key, nullptr);
  std::string met;
  const auto stopAtA = [](const void *key, void *, void *clientData) {
    const auto *const text = static_cast<const char *>(key);
    *static_cast<std::string *>(clientData) += std::string("<") + text + ">";
    return *text == 'a' ? -5 : 0;
  };
  EXPECT_EQ(-5, HashTable_ForEach(table.get(), stopAtA, &met));
  EXPECT_EQ("<><a>", met);
  HashTable_Delete(table.get(), "a");
  HashTable_Delete(table.get(), "ab");
  EXPECT_EQ(0, HashTable_ForEach(table.get(), stopAtA, &met));
}

TEST(HashTable, RefusesOtherBucketCountsAndKeyTypes) {
  HashTable_Free(nullptr);
  for (const uint32_t numBuckets : {3u, 127u, 0xffffffffu}) {
    EXPECT_EQ("Panic: HashTable_Alloc only takes powers of 2 \n", FatalText([numBuckets] {
                const HashTableOwner table(HashTable_Alloc(numBuckets, 0, nullptr));
              }));
  }
  for (const uint32_t keyType : {3u, 7u}) {
    EXPECT_EQ("Panic: NOT_REACHED lib/misc/hashTable:142\n", FatalText([keyType] {
                const HashTableOwner table(HashTable_Alloc(2, keyType, nullptr));
                HashTable_Lookup(table.get(), "key", nullptr);
              }));
  }
}

}  // namespace
