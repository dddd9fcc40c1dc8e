// mxUserStatsPass.cpp -- the statistics pass: walks the list of locks and writes their lines.
//
// Everything here runs with the list lock held, so one line buffer is enough.
//
// Tests: tests/unit/lock_test.cpp

#include <algorithm>
#include <cstdarg>
#include <utility>

#include "lib/lock/mxUserStats.h"
#include "lib/public/log.h"
#include "lib/public/recordText.h"
#include "lib/public/str.h"

namespace {

constexpr uint64_t kHistoMinValue = 1000;
constexpr uint32_t kHistoDecades = 7;

struct StatsOutput {
  MXUserStatsFunc write = nullptr;
  void *context = nullptr;
  size_t size = 0;         // of the line, with its NUL
  char *line = nullptr;    // owned
  uint64_t announced = 0;  // the highest serial number whose lock has been named
  uint64_t highestSeen = 0;
};

constinit StatsOutput output;

// ---- lines -----------------------------------------------------------------------------------

// Formats into the line buffer.  Returns the length, or -1 when the line was cut.
__attribute__((format(printf, 1, 2))) int Format(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int length = Str_Vsnprintf(output.line, output.size, format, args);
  va_end(args);
  return length;
}

void Write() {
  output.write(output.context, output.line);
}

unsigned long long Wide(uint64_t value) {
  return value;
}

void WriteBasicLine(const MXUserHeader &header, const MXUserBasicStats &stats) {
  const uint64_t count = stats.numSamples.Get();
  const uint64_t sum = stats.timeSum.Get();
  const uint64_t deviation = MXUserStandardDeviation(count, sum, stats.timeSquaredSum.Get());
  Format("MXUser: e l=%llu t=%s c=%llu min=%llu max=%llu mean=%llu sd=%llu\n",
         Wide(header.serialNumber), stats.typeName, Wide(count), Wide(stats.minTime.Get()),
         Wide(stats.maxTime.Get()), Wide(count == 0 ? 0 : sum / count), Wide(deviation));
  Write();
}

void WriteContentionLine(const MXUserHeader &header, const MXUserAcquireStats &stats,
                         uint64_t attempts) {
  Format("MXUser: ce l=%llu a=%llu s=%llu sc=%llu sct=%llu t=%llu\n", Wide(header.serialNumber),
         Wide(attempts), Wide(stats.numSuccesses.Get()), Wide(stats.numSuccessesContended.Get()),
         Wide(stats.successContentionTime.Get()),
         Wide(stats.totalContentionTime.load(std::memory_order_relaxed)));
  Write();
}

// Each bin overwrites the end of the line and brings a new one, as long as two bytes stay free behind it.
void WriteHistoLine(const MXUserHeader &header, const MXUserHisto &histo) {
  const int headLength =
      Format("MXUser: h l=%llu t=%s min=%llu max=%llu\n", Wide(header.serialNumber), histo.typeName,
             Wide(histo.minValue), Wide(histo.maxValue));
  size_t length = headLength < 0 ? output.size : static_cast<size_t>(headLength);
  for (uint32_t bin = 0; bin < histo.numBins; bin++) {
    const uint64_t count = histo.bins[bin].Get();
    if (count == 0) continue;
    char entry[32];
    const auto entryLength =
        static_cast<size_t>(Str_Sprintf(entry, sizeof entry, " %u-%llu\n", bin, Wide(count)));
    if (length + entryLength + 2 > output.size) break;
    Str_Strcpy(output.line + length - 1, entry, output.size - (length - 1));
    length += entryLength - 1;
  }
  Write();
}

void WriteHistoLineIfAny(const MXUserHeader &header, const MXUserBasicStats &stats) {
  const MXUserHisto *const histo = stats.histo.Get();
  if (histo != nullptr) WriteHistoLine(header, *histo);
}

// ---- one lock --------------------------------------------------------------------------------

void MakeHisto(MXUserBasicStats *stats) {
  if (stats->histo.Get() != nullptr) return;
  stats->histo.Install(MXUserNewHisto(stats->typeName, kHistoMinValue, kHistoDecades));
}

void Announce(const MXUserHeader &header) {
  if (header.serialNumber <= output.announced) return;
  Format("MXUser: n n=%s l=%llu r=0x%x\n", header.name.get(), Wide(header.serialNumber),
         header.rank);
  Write();
  output.highestSeen = std::max(output.highestSeen, header.serialNumber);
}

void VisitLock(MXUserHeader *header) {
  Announce(*header);
  if (header->statsAction != nullptr) header->statsAction(header);
}

}  // namespace

void MXUserStatsAction(MXUserHeader *header) {
  auto *const lock = static_cast<MXUserLock *>(header);
  MXUserHeldStats *const held = lock->heldStats.Get();
  if (held != nullptr) {
    WriteBasicLine(*lock, held->basic);
    WriteHistoLineIfAny(*lock, held->basic);
  }

  MXUserAcquireStats *const acquire = lock->acquireStats.Get();
  if (acquire == nullptr) return;
  const uint64_t attempts = acquire->numAttempts.load(std::memory_order_relaxed);
  if (attempts > 0) {
    if (acquire->basic.numSamples.Get() > 0) WriteBasicLine(*lock, acquire->basic);
    WriteContentionLine(*lock, *acquire, attempts);
  }
  WriteHistoLineIfAny(*lock, acquire->basic);

  const MXUserContention contention = MXUserCheckContention(*acquire);
  if (!contention.isHot) return;
  MakeHisto(&acquire->basic);
  if (held != nullptr) MakeHisto(&held->basic);
  if (contention.doLog) {
    const RecordText record = RecordText_Format("HOT LOCK (%s); contention ratio %f\n",
                                                lock->name.get(), contention.ratio);
    Log("%s", record.text);
  }
}

// ---- the pass --------------------------------------------------------------------------------

void MXUser_SetStatsFunc(void *context, size_t maxLineLength, bool /*trackHeldTimes*/,
                         MXUserStatsFunc outputFunction) {
  HeapArray<char> line = Heap_Array<char>(std::max<size_t>(maxLineLength, 1));
  if (line == nullptr) Fatal_MemAlloc();
  line[0] = '\0';

  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  output.context = context;
  output.size = maxLineLength;
  output.write = outputFunction;
  HeapArray<char>(std::exchange(output.line, line.release())).reset();
}

void MXUser_PerLockData() {
  const MXUserListHolder list(MXUserListHolder::Mode::tryOnly);
  if (!list || output.write == nullptr) return;
  MXUserForEachLock(VisitLock);
  output.announced = output.highestSeen;
}
