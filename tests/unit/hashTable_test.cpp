// hashTable_test.cpp -- hash tables of every kind against a model built on the C++ library's maps,
// and many threads in one atomic table, where ThreadSanitizer sees the data races.

#include "hashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <functional>
#include <latch>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "tests/support/capture.h"

namespace {

std::string Lower(std::string text) {
  for (char &c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// The second opinion on the order of entries, in 64-bit arithmetic by division.

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
  if (numBuckets < 2) return 0;
  while (hash >= numBuckets) hash = hash / numBuckets ^ hash % numBuckets;
  return hash;
}

constexpr size_t kSteps = 1000;
std::vector<int> freed;  // how often each value was; values point into it
void CountFree(void *value) {
  ++*static_cast<int *>(value);
}

// A table, and what should be in it: a map from the key, as the table tells keys apart.
class ModelRun {
  std::mt19937 random_{11};
  const uint32_t numBuckets_;
  const uint32_t keyType_;
  const bool copies_;
  HashTableOwner table_;
  std::vector<std::string> names_;  // what uncopied keys point to
  std::map<std::string, int *> model_;
  std::vector<int> toBeFreed_ = std::vector<int>(kSteps);

  void GivesUp(const int *value) {
    if (value != nullptr) toBeFreed_[static_cast<size_t>(value - freed.data())]++;
  }

  uint64_t Bucket(const void *key) const { return Fold(HashOf(key, keyType_), numBuckets_); }

  // What the model calls the key.
  std::string Name(const void *key) const {
    if (keyType_ == HASHTABLE_INT_KEY) return std::to_string(reinterpret_cast<uintptr_t>(key));
    const std::string text = static_cast<const char *>(key);
    return keyType_ == HASHTABLE_ISTRING_KEY ? Lower(text) : text;
  }

  void Step(int *value) {
    const size_t place = random_() % names_.size();
    const std::string passing = names_[place];  // gone after the step
    const char *const text = copies_ ? passing.c_str() : names_[place].c_str();
    const auto *const number = HashTable_IntKey(place * 0x9E3779B97F4A7C15 >> place % 64);
    const void *const key = keyType_ == HASHTABLE_INT_KEY ? number : text;
    HashTable *const table = table_.get();
    const std::string name = Name(key);
    const bool there = model_.contains(name);
    int *const old = there ? model_[name] : nullptr;
    void *found = old;
    const unsigned choice = random_() % 8;
    if (choice == 0) {
      EXPECT_EQ(!there, HashTable_Insert(table, key, value));
    } else if (choice == 1) {
      EXPECT_EQ(there ? old : value, HashTable_LookupOrInsert(table, key, value));
    } else if (choice == 2) {
      EXPECT_EQ(there, HashTable_ReplaceOrInsert(table, key, value));
    } else if (choice == 3) {
      EXPECT_EQ(there, HashTable_ReplaceIfEqual(table, key, old, value));
    } else if (choice == 4) {
      EXPECT_FALSE(HashTable_ReplaceIfEqual(table, key, &found, value));
    } else if (choice == 5) {
      EXPECT_EQ(there, HashTable_Delete(table, key));
    } else {
      found = nullptr;
      EXPECT_EQ(there, choice == 6 ? HashTable_LookupAndDelete(table, key, &found)
                                   : HashTable_Lookup(table, key, &found));
    }
    EXPECT_EQ(old, found);
    const bool sets = choice == 2 || (choice == 3 && there);
    if (sets || choice == 5) GivesUp(old);
    if (choice == 5 || choice == 6) model_.erase(name);
    if (sets || (choice < 2 && !there)) model_[name] = value;
  }

  void CheckContent() const {
    size_t count = 0, keyCount = 0;
    const HeapArray<void *> values(HashTable_ValueArray(table_.get(), &count));
    const HeapArray<const void *> keys(HashTable_KeyArray(table_.get(), &keyCount));
    ASSERT_EQ(model_.size(), count);
    ASSERT_EQ(model_.size(), keyCount);
    EXPECT_EQ(model_.size(), HashTable_GetNumElements(table_.get()));
    for (size_t i = 0; i < count; i++) EXPECT_EQ(model_.at(Name(keys[i])), values[i]);
    EXPECT_TRUE(std::is_sorted(keys.get(), keys.get() + count,
                               [this](auto *a, auto *b) { return Bucket(a) < Bucket(b); }));
  }

  void EmptyModel() {
    for (const auto &[name, value] : model_) GivesUp(value);
    model_.clear();
  }

 public:
  ModelRun(uint32_t numBuckets, uint32_t flags)
      : numBuckets_(numBuckets),
        keyType_(flags & HASHTABLE_KEY_TYPE_MASK),
        copies_((flags & HASHTABLE_COPY_KEY) != 0),
        table_(HashTable_Alloc(numBuckets, flags, CountFree)) {
    for (int i = 0; i < 40; i++) {
      names_.push_back("Key\xE9 number " + std::to_string(i));
      names_.push_back("kEY\xE9 number " + std::to_string(i));
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

TEST(HashTable, RandomOperationsAgreeWithAMapInBucketOrder) {
  ASSERT_EQ(0x18840u, HashOf("ab", HASHTABLE_STRING_KEY));
  ASSERT_EQ(86u, Fold(0x18840, 128));
  ASSERT_EQ(56u, Fold(HashOf("A", HASHTABLE_ISTRING_KEY), 128));
  for (const uint32_t numBuckets : {0u, 1u, 2u, 128u}) {
    for (const uint32_t flags : {0u, 0x8u, 0x10u, 0x18u}) {
      for (const uint32_t keyType : {0u, 1u, 2u}) {
        SCOPED_TRACE(testing::Message() << numBuckets << " buckets, flags " << (flags | keyType));
        ModelRun(numBuckets, flags | keyType).Run();
      }
    }
  }
}

TEST(HashTable, AWalkEndsAtTheFirstResultButZero) {
  const HashTableOwner table(HashTable_Alloc(1, HASHTABLE_STRING_KEY, nullptr));
  for (const char *key : {"ab", "a", ""}) HashTable_Insert(table.get(), key, nullptr);
  std::string met;
  const auto stopAtA = [](const void *key, void *, void *clientData) {
    const std::string text = static_cast<const char *>(key);
    *static_cast<std::string *>(clientData) += "<" + text + ">";
    return text == "a" ? -5 : 0;
  };
  EXPECT_EQ(-5, HashTable_ForEach(table.get(), stopAtA, &met));
  EXPECT_EQ("<><a>", met) << "the latest first";
}

TEST(HashTable, RefusesOtherBucketCountsAndKeyTypes) {
  EXPECT_EQ("Panic: HashTable_Alloc only takes powers of 2 \n",
            FatalText([] { const HashTableOwner table(HashTable_Alloc(3, 0, nullptr)); }));
  EXPECT_EQ("Panic: NOT_REACHED lib/misc/hashTable:142\n", FatalText([] {
              const HashTableOwner table(HashTable_Alloc(2, 3, nullptr));
              HashTable_Lookup(table.get(), "key", nullptr);
            }));
}

// ---- threads ---------------------------------------------------------------------------------

constexpr size_t kThreads = 8;

// Runs body(thread number) in all threads at once.
void InThreads(const std::function<void(size_t me)> &body) {
  std::latch start(kThreads);
  std::vector<std::jthread> threads;
  for (size_t i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
}

struct Value {
  size_t key = 0;  // plain: written before the hand-over, read by whoever looks the value up
  bool kept = false;
  std::atomic<int> freed = 0;
};

TEST(HashTableThreads, EveryKeyGoesInOnceAndEveryValueTakenIsFreedOnce) {
  constexpr size_t kRounds = 2000, kKeys = 500;
  const HashTableOwner table(
      HashTable_Alloc(128, HASHTABLE_ATOMIC | HASHTABLE_COPY_KEY,
                      [](void *value) { static_cast<Value *>(value)->freed++; }));
  std::array<std::vector<Value>, kThreads> values;
  for (auto &mine : values) mine = std::vector<Value>(kRounds);
  InThreads([&](size_t me) {
    for (size_t i = 0; i < kRounds; i++) {
      Value &mine = values[me][i];
      mine.key = me % 4 < 2 ? i % kKeys : kKeys - 1 - i % kKeys;
      const std::string name = std::to_string(mine.key);  // gone after the insertion
      const char *const key = name.c_str();
      void *old = nullptr;
      if (i < kKeys && me % 2 == 0) {
        mine.kept = !HashTable_Insert(table.get(), key, &mine);
      } else if (i < kKeys) {
        mine.kept = HashTable_LookupOrInsert(table.get(), key, &mine) != &mine;
      } else if (me % 2 == 0) {
        HashTable_ReplaceOrInsert(table.get(), key, &mine);
      } else {
        ASSERT_TRUE(HashTable_Lookup(table.get(), key, &old));
        EXPECT_EQ(mine.key, static_cast<Value *>(old)->key);
        mine.kept = !HashTable_ReplaceIfEqual(table.get(), key, old, &mine);
      }
    }
  });
  // The array is complete, whatever the advisory count has missed.
  size_t count = 0;
  HeapArray<void *>(HashTable_ValueArray(table.get(), &count)).reset();
  EXPECT_EQ(kKeys, count);
  HashTable_Clear(table.get());
  for (const auto &mine : values) {
    for (const Value &value : mine) EXPECT_EQ(value.kept ? 0 : 1, value.freed);
  }
}

TEST(HashTableThreads, AllThreadsGetTheOneTableOfASlot) {
  for (int round = 0; round < 100; round++) {
    std::atomic<HashTable *> slot = nullptr;
    std::array<HashTable *, kThreads> got = {};
    InThreads([&](size_t me) {
      // Many buckets keep the threads at it while the others come.
      got[me] = HashTable_AllocOnce(&slot, 8192, HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, nullptr);
    });
    const HashTableOwner table(slot);
    for (const HashTable *one : got) EXPECT_EQ(table.get(), one);
  }
}

}  // namespace
