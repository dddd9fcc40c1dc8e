// mxUserStats.cpp -- statistics records, from their creation to the check for contention.
//
// Tests: tests/unit/lock_test.cpp

#include "lib/lock/mxUserStats.h"

#include <algorithm>
#include <memory>

#include "lib/lock/mxUserLog10.h"
#include "lib/public/log.h"

namespace {

constexpr uint32_t kBinsPerDecade = 100;

struct StatsState {
  std::atomic<int> mode = 0;
  RelaxedAtomic<double> ratioFloor;
  RelaxedAtomic<uint64_t> countFloor;
  RelaxedAtomic<uint64_t> durationFloor;
};

constinit StatsState state;

HeapPtr<MXUserAcquireStats> NewAcquireStats() {
  HeapPtr<MXUserAcquireStats> stats = Heap_New<MXUserAcquireStats>();
  stats->ratioFloor.Set(state.ratioFloor.Get());
  stats->countFloor.Set(state.countFloor.Get());
  stats->durationFloor.Set(state.durationFloor.Get());
  stats->basic.typeName = "a";
  return stats;
}

HeapPtr<MXUserHeldStats> NewHeldStats() {
  HeapPtr<MXUserHeldStats> stats = Heap_New<MXUserHeldStats>();
  stats->basic.typeName = "h";
  return stats;
}

// Sets one floor of a lock; false when it has none.
template <typename T>
bool SetFloor(MXUserLock *lock, RelaxedAtomic<T> MXUserAcquireStats::*floor, T value) {
  MXUserAcquireStats *const stats = lock->acquireStats.Get();
  if (stats == nullptr) return false;
  (stats->*floor).Set(value);
  return true;
}

// Newton's iteration.  From the first step on it approaches the root from above, and ends when a step is
// small enough.  Near roots so large that neighbouring doubles are farther apart, the number of steps ends
// it: each step halves the distance at least, so 100 lead from 2^192 to the root.
double SquareRoot(double value) {
  constexpr double kClose = 1e-10;
  constexpr int kMostSteps = 128;
  double root = value;
  for (int step = 0; step < kMostSteps; step++) {
    const double before = root;
    root = (before + value / before) / 2;
    if (std::max(before - root, root - before) <= kClose) break;
  }
  return root;
}

double Part(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace

// ---- histograms ------------------------------------------------------------------------------

HeapPtr<MXUserHisto> MXUserNewHisto(const char *typeName, uint64_t minValue, uint32_t decades) {
  using Bin = RelaxedAtomic<uint64_t>;
  HeapPtr<MXUserHisto> histo = Heap_New<MXUserHisto>();
  histo->typeName = typeName;
  histo->numBins = kBinsPerDecade * decades;
  histo->minValue = minValue;
  histo->maxValue = minValue;
  for (uint32_t i = 0; i < decades; i++) histo->maxValue *= 10;
  histo->bins.reset(static_cast<Bin *>(Heap_SafeMalloc(histo->numBins * sizeof(Bin))));
  std::uninitialized_value_construct_n(histo->bins.get(), histo->numBins);
  return histo;
}

void MXUserHistoSample(MXUserHisto *histo, uint64_t value) {
  histo->totalSamples.Add(1);
  uint64_t bin = 0;
  if (value >= histo->minValue) {
    bin = MXUserLog10::Scaled(kBinsPerDecade, value, histo->minValue);
    bin = std::min<uint64_t>(bin, histo->numBins - 1);
  }
  histo->bins[bin].Add(1);
}

// ---- samples ---------------------------------------------------------------------------------

void MXUserBasicStatsSample(MXUserBasicStats *stats, uint64_t value) {
  stats->numSamples.Add(1);
  stats->minTime.Set(std::min(stats->minTime.Get(), value));
  stats->maxTime.Set(std::max(stats->maxTime.Get(), value));
  stats->timeSum.Add(value);
  const auto real = static_cast<double>(value);
  stats->timeSquaredSum.Add(real * real);
  MXUserHisto *const histo = stats->histo.Get();
  if (histo != nullptr) MXUserHistoSample(histo, value);
}

uint64_t MXUserStandardDeviation(uint64_t numSamples, uint64_t timeSum, double timeSquaredSum) {
  if (numSamples < 2) return 0;
  const auto count = static_cast<double>(numSamples);
  const double mean = static_cast<double>(timeSum) / count;
  const double variance = (timeSquaredSum - mean * count * mean) / (count - 1);
  if (variance <= 0) return 0;
  const double rounded = SquareRoot(variance) + 0.5;
  // A sum that has wrapped around can make this larger than any uint64_t.
  return rounded < 0x1p64 ? static_cast<uint64_t>(rounded) : UINT64_MAX;
}

// ---- acquisitions ----------------------------------------------------------------------------

void MXUserAcquisitionSample(MXUserAcquireStats *stats, bool acquired, bool contended,
                             uint64_t elapsed) {
  const bool counts = contended && elapsed >= stats->durationFloor.Get();
  stats->numAttempts.fetch_add(1, std::memory_order_relaxed);
  if (counts) stats->totalContentionTime.fetch_add(elapsed, std::memory_order_relaxed);
  if (!acquired) return;
  stats->numSuccesses.Add(1);
  if (counts) {
    stats->numSuccessesContended.Add(1);
    stats->successContentionTime.Add(elapsed);
  }
  MXUserBasicStatsSample(&stats->basic, elapsed);
}

MXUserContention MXUserCheckContention(const MXUserAcquireStats &stats) {
  const uint64_t attempts = stats.numAttempts.load(std::memory_order_relaxed);
  // An attempt is counted before its success, but the two counts may be seen in the other order.
  const uint64_t successes = std::min(attempts, stats.numSuccesses.Get());
  const uint64_t countFloor = stats.countFloor.Get();
  const double ratio = attempts < countFloor
                           ? 0
                           : std::max(Part(attempts - successes, attempts),
                                      Part(stats.numSuccessesContended.Get(), successes));
  if (countFloor == 0) return {.isHot = false, .doLog = false, .ratio = ratio};
  if (countFloor == UINT64_MAX) return {.isHot = true, .doLog = false, .ratio = ratio};
  const bool exceeds = ratio > stats.ratioFloor.Get();
  return {.isHot = exceeds, .doLog = exceeds, .ratio = ratio};
}

// ---- of one lock -----------------------------------------------------------------------------

void MXUserSetStatsMode(int mode) {
  state.mode.store(mode, std::memory_order_relaxed);
}

void MXUserInitStats(MXUserLock *lock, const MXUserLockKind &kind) {
  const int mode = state.mode.load(std::memory_order_relaxed);
  if (mode < 0 || mode > 2) Panic("%s: unknown stats mode: %d!\n", kind.createName, mode);
  if (mode == 0) return;
  lock->statsAction = MXUserStatsAction;
  lock->acquireStats.Install(NewAcquireStats());
  if (mode == 2) lock->heldStats.Install(NewHeldStats());
}

void MXUser_SetContentionFloors(uint64_t countFloor, uint64_t durationFloor, double ratioFloor) {
  state.countFloor.Set(countFloor);
  state.durationFloor.Set(durationFloor);
  state.ratioFloor.Set(ratioFloor);
}

bool MXUserSetRatioFloor(MXUserLock *lock, double ratioFloor) {
  return SetFloor(lock, &MXUserAcquireStats::ratioFloor, ratioFloor);
}

bool MXUserSetCountFloor(MXUserLock *lock, uint64_t countFloor) {
  return SetFloor(lock, &MXUserAcquireStats::countFloor, countFloor);
}

bool MXUserSetDurationFloor(MXUserLock *lock, uint64_t durationFloor) {
  return SetFloor(lock, &MXUserAcquireStats::durationFloor, durationFloor);
}
