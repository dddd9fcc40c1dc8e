// allocFault.h -- makes an allocation of the product's code fail.
//
// For test programs that are linked with --wrap=malloc,--wrap=calloc,--wrap=realloc.  In these a size
// above PTRDIFF_MAX always fails, as in the hosts' libraries; sanitizers would end the program instead.
#pragma once

#include <atomic>

// While the object exists, the nth allocation from its construction on fails; one object at a time.
class AllocFault {
 public:
  static inline std::atomic<int> left{0};  // allocations until the fault, which is one of them

  explicit AllocFault(int nth);
  AllocFault(const AllocFault &) = delete;
  AllocFault &operator=(const AllocFault &) = delete;
  ~AllocFault() { left = 0; }

  // Whether there have been that many.
  bool Fired() const { return left <= 0; }
};
