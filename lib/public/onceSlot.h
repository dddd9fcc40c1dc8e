// onceSlot.h -- one installation by compare-and-swap, of an object that is made at its first use.
#pragma once

#include <atomic>
#include <memory>

// Puts `fresh` into the empty slot.  When another thread was first, `fresh` is freed.  Returns what
// is in the slot then; what was written to it before it was installed is visible to the caller.
template <typename T, typename Object, typename Deleter>
T *OnceSlot_Install(std::atomic<T *> *slot, std::unique_ptr<Object, Deleter> fresh) {
  T *winner = nullptr;
  if (slot->compare_exchange_strong(winner, fresh.get(), std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
    return fresh.release();
  }
  return winner;
}
