// hashTable_test.cpp -- hash tables of every kind against a map of the C++ library, and many
// threads in one atomic table, where ThreadSanitizer sees the data races.

#include "hashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <latch>
#include <map>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "tests/support/capture.h"
#include "tests/support/rounds.h"

namespace {

struct Value {
  size_t key = 0;        // plain: written before the hand-over, read by whoever looks the value up
  bool isFreed = false;  // should be, in the end
  std::atomic<int> freed = 0;
};

void Free(void *value) {
  static_cast<Value *>(value)->freed++;
}

// ---- one thread ------------------------------------------------------------------------------

// One operation with a key and a value; the model is a map from what the keys stand for.
void Step(unsigned choice, HashTable *table, std::map<size_t, Value *> *model, const void *key,
          Value *value) {
  const bool there = model->contains(value->key);
  Value *const old = there ? model->at(value->key) : nullptr;
  void *found = nullptr;
  const std::function<bool()> operations[] = {
      [&] { return HashTable_Insert(table, key, value) == !there; },
      [&] { return HashTable_LookupOrInsert(table, key, value) == (there ? old : value); },
      [&] { return HashTable_ReplaceOrInsert(table, key, value) == there; },
      [&] { return HashTable_ReplaceIfEqual(table, key, old, value) == there; },
      [&] { return !HashTable_ReplaceIfEqual(table, key, &found, value); },
      [&] { return HashTable_Delete(table, key) == there; },
      [&] { return HashTable_LookupAndDelete(table, key, &found) == there && found == old; },
      [&] { return HashTable_Lookup(table, key, &found) == there && found == old; },
  };
  ASSERT_TRUE(operations[choice]()) << choice;
  if (choice == 6 && there) old->isFreed = false;
  if (choice == 5 || choice == 6) model->erase(value->key);
  if (choice == 2 || (choice < 4 && there == (choice == 3))) {
    (*model)[value->key] = value;
    value->isFreed = true;
  }
}

TEST(HashTable, RandomOperationsAgreeWithAMap) {
  std::vector<std::string> strings;  // what uncopied keys point to
  for (const char *key : {"Key\xE9 number ", "kEY\xE9 number "}) {
    for (int i = 0; i < 40; i++) strings.push_back(key + std::to_string(i));
  }
  std::mt19937 random(11);
  for (uint32_t kind = 0; kind < 4 * 4 * 3; kind++) {
    const uint32_t flags = kind / 3 % 4 * HASHTABLE_ATOMIC | kind % 3;
    std::vector<Value> values(1000);
    std::map<size_t, Value *> model;
    HashTableOwner table(HashTable_Alloc(std::array{0U, 1U, 2U, 128U}[kind / 12], flags, Free));
    for (Value &value : values) {
      const size_t place = random() % strings.size();
      const std::string passing = strings[place];  // gone after the step
      const void *key = ((flags & HASHTABLE_COPY_KEY) != 0 ? passing : strings[place]).c_str();
      if (kind % 3 == HASHTABLE_INT_KEY) key = HashTable_IntKey(place << place / 2);
      value.key = kind % 3 == HASHTABLE_ISTRING_KEY ? place % 40 : place;
      Step(random() % 8, table.get(), &model, key, &value);
      if (HasFatalFailure()) return;
      if (random() % 400 != 0) continue;
      size_t count = 0, keyCount = 0;
      const HeapArray<void *> content(HashTable_ValueArray(table.get(), &count));
      const HeapArray<const void *> keys(HashTable_KeyArray(table.get(), &keyCount));
      ASSERT_TRUE(model.size() == count && count == keyCount &&
                  count == HashTable_GetNumElements(table.get()));
      for (const auto &[name, there] : model)
        EXPECT_EQ(1, std::count(content.get(), content.get() + count, there));
      HashTable_Clear(table.get());
      model.clear();
    }
    table.reset();
    for (const Value &value : values) EXPECT_EQ(value.isFreed ? 1 : 0, value.freed);
  }
}

TEST(HashTable, WalksInBucketOrderToTheFirstResultButZero) {
  const HashTableOwner table(HashTable_Alloc(128, HASHTABLE_STRING_KEY, nullptr));
  for (const char *key : {"/dev/null", "ab", "UTF-16LE", "a", "", "lumenClient-opener", "UTF-8"}) {
    HashTable_Insert(table.get(), key, nullptr);
  }
  std::string met;
  const auto stopAtAb = [](const void *key, void *, void *all) {
    const std::string text = static_cast<const char *>(key);
    *static_cast<std::string *>(all) += text + " ";
    return text == "ab" ? -5 : 0;
  };
  EXPECT_EQ(-5, HashTable_ForEach(table.get(), stopAtAb, &met));
  EXPECT_EQ(" UTF-8 UTF-16LE lumenClient-opener a ab ", met);  // buckets 0 25 35 37 56 86 of 128
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

constexpr size_t kThreads = 8, kKeys = 500;

// What each thread does with its values, in a table that the first of them makes.  Many buckets keep
// it at that while the others come.
void UseTable(std::atomic<HashTable *> *slot, size_t me, std::span<Value> values) {
  HashTable *const table =
      HashTable_AllocOnce(slot, 8192, HASHTABLE_ATOMIC | HASHTABLE_COPY_KEY, Free);
  EXPECT_EQ(table, *slot);
  for (size_t i = 0; i < values.size(); i++) {
    Value &mine = values[i];
    mine.key = (me < 4 ? i : values.size() - i) % kKeys;
    const std::string name = std::to_string(mine.key);  // gone after the insertion
    const char *const key = name.c_str();
    void *old = nullptr;
    if (me % 4 == 0) {
      mine.isFreed = HashTable_Insert(table, key, &mine);
    } else if (me % 4 == 1) {
      mine.isFreed = HashTable_LookupOrInsert(table, key, &mine) == &mine;
    } else if (me % 4 == 2) {
      HashTable_ReplaceOrInsert(table, key, &mine);
      mine.isFreed = true;
    } else if (HashTable_Lookup(table, key, &old)) {
      EXPECT_EQ(mine.key, static_cast<Value *>(old)->key);
      mine.isFreed = HashTable_ReplaceIfEqual(table, key, old, &mine);
    }
  }
}

TEST(HashTable, EveryKeyGoesInOnceAndEveryValueTakenIsFreedOnceByManyThreads) {
  constexpr size_t kEach = 1000;
  for (int round = Rounds(20); round > 0; round--) {
    std::atomic<HashTable *> slot = nullptr;
    std::vector<Value> values(kThreads * kEach);
    std::latch start(kThreads);
    std::vector<std::jthread> threads;
    for (size_t me = 0; me < kThreads; me++) {
      threads.emplace_back([&, me] {
        start.arrive_and_wait();
        UseTable(&slot, me, std::span(values).subspan(me * kEach, kEach));
      });
    }
    threads.clear();
    // The array is complete, whatever the advisory count has missed.
    HashTableOwner table(slot);
    size_t count = 0;
    HeapArray<void *>(HashTable_ValueArray(table.get(), &count)).reset();
    EXPECT_EQ(kKeys, count);
    table.reset();
    for (const Value &value : values) ASSERT_EQ(value.isFreed ? 1 : 0, value.freed);
  }
}

}  // namespace
