// mxUserStats.h -- statistics of locks: the records, their samples, and the check for contention.
//
// The thread that holds the lock writes a record while the statistics pass of another thread may read it:
// a line may mix values from before and after a sample, which is good enough for statistics.  Only the
// numbers that threads without the lock change, too, are added to atomically.
//
// Nothing takes samples yet: the mode is 0, and acquiring and releasing stay as short as they are.
#pragma once

#include "lib/lock/mxUserInt.h"

// ---- histograms ------------------------------------------------------------------------------

// All bins have the same width on a logarithmic scale.
struct MXUserHisto {
  const char *typeName;
  uint32_t numBins;
  uint64_t minValue;
  uint64_t maxValue;
  RelaxedAtomic<uint64_t> totalSamples;
  std::unique_ptr<RelaxedAtomic<uint64_t>[], HeapFreer> bins;
};

// Begins at minValue, which is above 0, with 100 bins per decade.
[[nodiscard]] HeapPtr<MXUserHisto> MXUserNewHisto(const char *typeName, uint64_t minValue,
                                                  uint32_t decades);

// A value below the range counts in the first bin, a value above it in the last.
void MXUserHistoSample(MXUserHisto *histo, uint64_t value);

// ---- samples ---------------------------------------------------------------------------------

struct MXUserBasicStats {
  const char *typeName = nullptr;
  RelaxedAtomic<uint64_t> numSamples;
  RelaxedAtomic<uint64_t> minTime{UINT64_MAX};
  RelaxedAtomic<uint64_t> maxTime;
  RelaxedAtomic<uint64_t> timeSum;
  RelaxedAtomic<double> timeSquaredSum;
  MXUserOnceSlot<MXUserHisto> histo;  // none until the lock turns hot
};

// The caller holds the lock.
void MXUserBasicStatsSample(MXUserBasicStats *stats, uint64_t value);

// The standard deviation, rounded; 0 for fewer than two samples.
[[nodiscard]] uint64_t MXUserStandardDeviation(uint64_t numSamples, uint64_t timeSum,
                                               double timeSquaredSum);

// ---- acquisitions ----------------------------------------------------------------------------

struct MXUserAcquireStats {
  RelaxedAtomic<double> ratioFloor;
  RelaxedAtomic<uint64_t> countFloor;
  RelaxedAtomic<uint64_t> durationFloor;

  std::atomic<uint64_t> numAttempts = 0;
  RelaxedAtomic<uint64_t> numSuccesses;
  RelaxedAtomic<uint64_t> numSuccessesContended;
  RelaxedAtomic<uint64_t> successContentionTime;
  std::atomic<uint64_t> totalContentionTime = 0;

  MXUserBasicStats basic;
};

// An attempt that took `elapsed` nanoseconds, most of them waiting if `contended`.  After a
// successful one the caller holds the lock.
void MXUserAcquisitionSample(MXUserAcquireStats *stats, bool acquired, bool contended,
                             uint64_t elapsed);

// The result of the check for contention.
struct MXUserContention {
  bool isHot;
  bool doLog;
  double ratio;
};
[[nodiscard]] MXUserContention MXUserCheckContention(const MXUserAcquireStats &stats);

// ---- held times ------------------------------------------------------------------------------

struct MXUserHeldStats {
  RelaxedAtomic<uint64_t> holdStart;
  MXUserBasicStats basic;
};

// ---- of one lock -----------------------------------------------------------------------------

// 0: no statistics; 1: acquisitions; 2: held times, too.  Applies to locks that are created from then on;
// with any other value creating one is fatal.
void MXUserSetStatsMode(int mode);

// Creates the records that the mode asks for.
void MXUserInitStats(MXUserLock *lock, const MXUserLockKind &kind);

// The statistics action of a MXUserLock: writes its lines, and creates its histograms when it is hot.
// For the statistics pass.
void MXUserStatsAction(MXUserHeader *header);

// False when the lock has no statistics of acquisitions.
bool MXUserSetRatioFloor(MXUserLock *lock, double ratioFloor);
bool MXUserSetCountFloor(MXUserLock *lock, uint64_t countFloor);
bool MXUserSetDurationFloor(MXUserLock *lock, uint64_t durationFloor);
