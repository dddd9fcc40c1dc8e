// mxUserPanic.cpp -- ending the process because of a lock, and the hooks of the external lock system,
// which takes part in that.
//
// Tests: tests/unit/lock_test.cpp

#include "lib/lock/mxUserInt.h"
#include "lib/public/log.h"
#include "lib/public/recordText.h"

namespace {

// From this failure on, locks are no longer trusted: each failure ends the process, so more than one means
// that exit handlers keep failing.
constexpr uint32_t kFailuresToPanic = 6;

struct PanicState {
  std::atomic<uint32_t> failures = 0;
  std::atomic<bool> inPanic = false;
  std::atomic<MXUserMxHooks *> hooks = nullptr;  // never freed
};

constinit PanicState state;

constexpr MXUserMxHooks kNoHooks = {};

}  // namespace

void MXUser_InstallMxHooks(const MXUserMxHooks &hooks) {
  if (hooks == kNoHooks) return;
  HeapPtr<MXUserMxHooks> fresh = Heap_New<MXUserMxHooks>();
  *fresh = hooks;
  OnceSlot_Install(&state.hooks, std::move(fresh));
}

const MXUserMxHooks &MXUserGetMxHooks() {
  const MXUserMxHooks *const hooks = state.hooks.load(std::memory_order_acquire);
  return hooks == nullptr ? kNoHooks : *hooks;
}

bool MXUser_InPanic() {
  if (state.inPanic.load(std::memory_order_relaxed)) return true;
  const MXUserMxHooks &hooks = MXUserGetMxHooks();
  return hooks.inPanic != nullptr && hooks.inPanic();
}

void MXUserDumpHeader(const MXUserHeader &header) {
  Warning("\tsignature 0x%X\n", header.signature.Get());
  Warning("%s", RecordText_Format("\tname %s\n", header.name.get()).text);
  Warning("\trank 0x%X\n", header.rank);
  Warning("\tserial number %llu\n", static_cast<unsigned long long>(header.serialNumber));
}

void MXUserDumpNative(const MXUserNativeLock &native) {
  Warning("\tlock count %d\n", native.Count());
  Warning("\taddress of owner data %p\n", static_cast<const void *>(&native.owner));
}

void MXUserDumpAndPanic(const MXUserHeader &header, const char *format, ...) {
  if (state.failures.fetch_add(1, std::memory_order_relaxed) + 1 >= kFailuresToPanic) {
    state.inPanic.store(true, std::memory_order_relaxed);
    const MXUserMxHooks &hooks = MXUserGetMxHooks();
    if (hooks.panic != nullptr) hooks.panic();
  }
  header.dump(header);

  va_list args;
  va_start(args, format);
  const RecordText message = RecordText_VFormat(format, args);
  va_end(args);
  Panic("%s", message.text);
}

void MXUserNativeFailure(const MXUserHeader &header, const char *procedure, int error) {
  MXUserDumpAndPanic(header, "%s: failure %d on lock %s\n", procedure, error, header.name.get());
}
