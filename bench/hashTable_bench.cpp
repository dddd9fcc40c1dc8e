// hashTable_bench.cpp -- hash tables against std::unordered_map with the same keys.
//
// Rows: look-ups of names, as C strings on both sides, in a table that copies its keys and has as
//       many buckets as keys; of integers; and insertion of copied keys, by one thread and by two,
//       where the peer of an atomic table is the map behind a mutex.  Two threads insert halves of
//       the keys, or all of them each.
//
// The hash, which decides the order of a table, spreads these names unevenly: a key of 32768 is found
// after 1.75 entries on average, and a random hash would need 1.5.  Among 2048 it is 1.56.
//
//   hashTable_bench [options of Google Benchmark]

#include <benchmark/benchmark.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <functional>
#include <latch>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench/ratios.h"
#include "lib/public/hashTable.h"

namespace {

using Keys = std::vector<std::string>;

// Lets the map find a C string without making a std::string of it.
struct TransparentHash {
  using is_transparent = void;
  size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
};
using PeerMap = std::unordered_map<std::string, void *, TransparentHash, std::equal_to<>>;

constexpr std::string_view kLumen = "/lumen";
constexpr std::string_view kPeer = "/std";
const std::vector<Peer> kPeers = {{"std", 1}};

// Names like those of a directory scan; different `kind`s have no key in common.
Keys MakeKeys(size_t count, const char *kind) {
  Keys keys;
  for (size_t i = 0; i < count; i++) keys.push_back("lumen-" + std::to_string(i * 7919) + kind);
  std::shuffle(keys.begin(), keys.end(), std::mt19937(3));
  return keys;
}

uint32_t BucketsFor(const Keys &keys) {
  return static_cast<uint32_t>(std::bit_ceil(keys.size()));
}

HashTableOwner NewTable(const Keys &keys, uint32_t flags) {
  return HashTableOwner(HashTable_Alloc(BucketsFor(keys), flags, nullptr));
}

benchmark::internal::Benchmark *Add(const std::string &row, std::string_view side,
                                    const std::function<void(benchmark::State &)> &body) {
  return benchmark::RegisterBenchmark((row + std::string(side)).c_str(), body)
      ->Repetitions(9)
      ->ReportAggregatesOnly(false);
}

// ---- look-ups -------------------------------------------------------------------------------

// Asks for all keys in a shuffled order that is not the one of insertion.
template <typename Asked, typename Ask>
void AskForAll(benchmark::State &state, Asked asked, Ask ask) {
  std::shuffle(asked.begin(), asked.end(), std::mt19937(5));
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ask(asked[next]));
    if (++next == asked.size()) next = 0;
  }
}

// Keys like addresses of a heap: numbers in a row would be each in a bucket of its own for the map,
// which does not hash them.
void AddIntegers(Ratios *ratios, const std::string &row, size_t count) {
  ratios->AddRow(row, {{"std", 1.1}});
  std::mt19937_64 random(7);
  std::vector<uintptr_t> keys;
  for (size_t i = 0; i < count; i++) keys.push_back(0x550000000000 + random() % (64 * count) * 16);
  Add(row, kLumen, [=](benchmark::State &state) {
    const HashTableOwner table(
        HashTable_Alloc(static_cast<uint32_t>(count), HASHTABLE_INT_KEY, nullptr));
    for (const uintptr_t key : keys) HashTable_Insert(table.get(), HashTable_IntKey(key), nullptr);
    AskForAll(state, keys, [&](uintptr_t key) {
      void *value = nullptr;
      return HashTable_Lookup(table.get(), HashTable_IntKey(key), &value);
    });
  })->MinTime(0.02);
  Add(row, kPeer, [=](benchmark::State &state) {
    std::unordered_map<uintptr_t, void *> map(count);
    for (const uintptr_t key : keys) map.emplace(key, nullptr);
    AskForAll(state, keys, [&](uintptr_t key) { return map.find(key) != map.end(); });
  })->MinTime(0.02);
}

void AddLookUp(Ratios *ratios, const std::string &row, const Keys &keys, const Keys &asked) {
  ratios->AddRow(row, kPeers);
  Add(row, kLumen, [=](benchmark::State &state) {
    const HashTableOwner table = NewTable(keys, HASHTABLE_COPY_KEY);
    for (const std::string &key : keys) HashTable_Insert(table.get(), key.c_str(), nullptr);
    AskForAll(state, asked, [&](const std::string &key) {
      void *value = nullptr;
      return HashTable_Lookup(table.get(), key.c_str(), &value);
    });
  })->MinTime(0.02);
  Add(row, kPeer, [=](benchmark::State &state) {
    PeerMap map(BucketsFor(keys));
    for (const std::string &key : keys) map.emplace(key, nullptr);
    AskForAll(state, asked,
              [&](const std::string &key) { return map.find(key.c_str()) != map.end(); });
  })->MinTime(0.02);
}

// ---- insertion ------------------------------------------------------------------------------

// The seconds from the common start of all bodies to the end of the last.
template <typename Body>
double TimeOfThreads(size_t numThreads, Body body) {
  std::latch start(static_cast<ptrdiff_t>(numThreads) + 1);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < numThreads; i++) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
  const auto begin = std::chrono::steady_clock::now();
  start.arrive_and_wait();
  for (std::thread &thread : threads) thread.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Each thread inserts keys [i * step, i * step + share).
void AddInsertion(Ratios *ratios, const std::string &row, const Keys &keys, size_t numThreads,
                  size_t share, size_t step) {
  ratios->AddRow(row, kPeers);
  const auto each = [share, step](const Keys &all, size_t thread, auto insert) {
    for (size_t i = 0; i < share; i++) insert(all[thread * step + i]);
  };
  Add(row, kLumen,
      [=](benchmark::State &state) {
        for (auto _ : state) {
          const HashTableOwner table = NewTable(keys, HASHTABLE_ATOMIC | HASHTABLE_COPY_KEY);
          state.SetIterationTime(TimeOfThreads(numThreads, [&](size_t thread) {
            each(keys, thread, [&](const std::string &key) {
              HashTable_Insert(table.get(), key.c_str(), nullptr);
            });
          }));
        }
      })
      ->UseManualTime()
      ->MinTime(0.1);
  Add(row, kPeer,
      [=](benchmark::State &state) {
        for (auto _ : state) {
          PeerMap map(BucketsFor(keys));
          std::mutex mutex;
          state.SetIterationTime(TimeOfThreads(numThreads, [&](size_t thread) {
            each(keys, thread, [&](const std::string &key) {
              const std::lock_guard lock(mutex);
              map.emplace(key, nullptr);
            });
          }));
        }
      })
      ->UseManualTime()
      ->MinTime(0.1);
}

void AddRows(Ratios *ratios) {
  for (const size_t count : {128, 2048, 32768}) {
    const Keys keys = MakeKeys(count, ".txt");
    const std::string size = std::to_string(count);
    AddLookUp(ratios, "found of " + size, keys, keys);
    AddLookUp(ratios, "missed of " + size, keys, MakeKeys(count, ".dat"));
    AddIntegers(ratios, "integers of " + size, count);
  }
  const Keys keys = MakeKeys(32768, ".txt");
  AddInsertion(ratios, "1 thread inserts", keys, 1, keys.size(), 0);
  AddInsertion(ratios, "2 insert halves", keys, 2, keys.size() / 2, keys.size() / 2);
  AddInsertion(ratios, "2 insert the same", keys, 2, keys.size(), 0);
}

}  // namespace

int main(int argc, char **argv) {
  Ratios ratios;
  AddRows(&ratios);
  return ratios.Main(argc, argv);
}
