// containers_test.cpp -- byte buffers; texts and what escaping makes of them; hash tables of every kind
// against a map of the C++ library, and many threads in one, where ThreadSanitizer sees the data
// races.
//
// Escaping and its ways back with any bytes, and quotes for a shell: fuzz/escape_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include <array>
#include <atomic>
#include <latch>
#include <map>
#include <span>

#include "lib/public/dynbuf.h"
#include "lib/public/escape.h"
#include "lib/public/hashTable.h"
#include "tests/support/allocFault.h"
#include "tests/support/test.h"

namespace {

using namespace std::string_view_literals;

// ---- byte buffers ----------------------------------------------------------------------------

TEST(DynBuf, GrowsByTheRule) {
  static constexpr size_t kRows[][3] = {// allocated, asked for, grown
                                        {0, 0, 128},
                                        {128, 64, 256},
                                        {128, 257, 257},
                                        {0x3ffff, 0x40000, 0x7fffe},
                                        {0x80000, 0, 0xc0000}};
  for (const auto &[allocated, minSize, grown] : kRows) {
    ScopedDynBuf buf;
    if (allocated > 0) DynBuf_Attach(&buf, allocated, Heap_SafeMalloc(allocated));
    ASSERT_TRUE(buf.size == allocated && DynBuf_Enlarge(&buf, minSize));
    EXPECT_EQ(grown, buf.allocated) << allocated << " " << minSize;
  }
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:4000000000\n",
            FatalText([] {
              ScopedDynBuf buf;
              DynBuf_SafeEnlarge(&buf, SIZE_MAX, "lib/some/file", 4000000000);
            }));
}

TEST(DynBuf, WhatIsAppendedIsCopiedTrimmedAndHandedOver) {
  ScopedDynBuf buf, copy;
  std::string model;
  for (const size_t count : {0U, 1U, 127U, 1U, 300U}) {
    const std::string piece(count, static_cast<char>('a' + count % 26));
    ASSERT_TRUE(DynBuf_Append(&buf, piece.data(), count));
    model += piece;
  }
  ASSERT_TRUE(DynBuf_Copy(&buf, &copy) && DynBuf_Trim(&copy));
  EXPECT_TRUE(buf.allocated == 512 && copy.allocated == model.size());
  // Needs room for the NUL first; afterwards the buffer has nothing but its size.
  EXPECT_EQ(model, HeapStr(DynBuf_DetachString(&copy)).get());
  EXPECT_TRUE(copy.data == nullptr && copy.allocated == 0 && copy.size == model.size());

  // Failure changes nothing.
  DynBuf huge = {.data = &model[0], .size = 1, .allocated = SIZE_MAX - 0x3ffff};
  const AllocFault fault(1);
  EXPECT_FALSE(DynBuf_Append(&buf, "", SIZE_MAX - 6) || DynBuf_Enlarge(&huge, 0));  // they wrap
  EXPECT_TRUE(!fault.Fired() && !DynBuf_Enlarge(&buf, 0) && fault.Fired());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(model, std::string(buf.data, buf.size));
  buf.size = 0;
  EXPECT_TRUE(DynBuf_Trim(&buf) && buf.data == nullptr && buf.allocated == 0);
}

// ---- escaping --------------------------------------------------------------------------------

TEST(Escape, ResultsAreWholeOrNone) {
  const std::string_view text = "a\0 \xff%41"sv;
  for (int nth = 1; nth < 4; nth++) {
    const AllocFault fault(nth);
    size_t length = 4711;
    // The table alone decides, also about the escape byte.
    const HeapStr result(Escape_Do('%', Escape_Table(" \xff"), text.data(), text.size(), &length));
    EXPECT_EQ(nth < 3, fault.Fired());
    // The first allocation is for the text, the second one gives back what the text does not need.
    EXPECT_TRUE(nth == 1 ? result == nullptr && errno == ENOMEM && length == 4711
                         : "a\0%20%FF%41"sv == std::string_view(result.get(), length));
  }
  const std::string_view lines = "a\r\n\r\nb\rc\r\r\n\r";
  EXPECT_EQ("a\n\nb\rc\r\n\r", Owned(Escape_AnsiToUnix(lines.data(), lines.size(), nullptr)));
  EXPECT_EQ("AJ%%41%", Owned(Escape_Undo('%', "%41%4a%%41%", 11, nullptr)));
  EXPECT_EQ("'a'\"'\"'b'", Owned(Escape_Sh("a'b", 3, nullptr)));
  EXPECT_EQ("a\\,b\\\\\\,", Owned(Escape_Comma("a,b\\,")));
  EXPECT_EQ("a,b\\, and no byte after",
            Owned(Escape_Unescape('\\', "a\\,b\\\\, and no byte after\\")));
  EXPECT_EQ(nullptr, Escape_Strchr('\\', "a\\,\\\0,", ','));
  char escapes[] = "\\12\\1 1\\ 12\\+12\\-12\\128\\812\\t\\N\\x41a\\nb\\\\n\\\\101\\377\\";
  Escape_UnescapeCString(escapes);
  EXPECT_STREQ("\\12\\1 1\\ 12\\+12\\-12\\128\\812\\t\\N\\x41a\nb\\n\\101\xff\\", escapes);
}

// ---- hash tables -----------------------------------------------------------------------------

struct Value {
  size_t key = 0;        // plain: written before the hand-over, read by threads that look it up
  bool isFreed = false;  // should be, in the end
  std::atomic<int> freed = 0;
};

void Free(void *value) {
  static_cast<Value *>(value)->freed++;
}

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
      size_t count = 0;
      const HeapArray<void *> content(HashTable_ValueArray(table.get(), &count));
      ASSERT_TRUE(model.size() == count && count == HashTable_GetNumElements(table.get()));
      for (size_t i = 0; i < count; i++) {
        EXPECT_EQ(content[i], model[static_cast<Value *>(content[i])->key]);
      }
      HashTable_Clear(table.get());
      model.clear();
    }
    table.reset();
    for (const Value &value : values) EXPECT_EQ(value.isFreed ? 1 : 0, value.freed);
  }
}

TEST(HashTable, WalksInBucketOrderAndRefusesOtherBucketCountsAndKeyTypes) {
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
  const HashTableOwner integers(HashTable_Alloc(128, HASHTABLE_INT_KEY, nullptr));
  const void *const keys[] = {HashTable_IntKey(uintptr_t{1} << 32), HashTable_IntKey(1),
                              HashTable_IntKey(2)};  // buckets 116 116 105
  for (const void *key : keys) HashTable_Insert(integers.get(), key, nullptr);
  size_t count = 0;
  const HeapArray<const void *> walked(HashTable_KeyArray(integers.get(), &count));
  EXPECT_TRUE(count == 3 && std::equal(&walked[0], &walked[3], std::rbegin(keys)));

  EXPECT_EQ("Panic: HashTable_Alloc only takes powers of 2 \n",
            FatalText([] { (void)HashTable_Alloc(3, 0, nullptr); }));
  EXPECT_EQ("Panic: NOT_REACHED lib/misc/hashTable:142\n",
            FatalText([] { HashTable_Insert(HashTable_Alloc(2, 3, nullptr), "", nullptr); }));
}

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
