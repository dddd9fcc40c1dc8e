// allocFault.h -- makes an allocation of the product's code fail.
//
// For test programs that are linked with --wrap=malloc,--wrap=calloc,--wrap=realloc.  In these a size
// above PTRDIFF_MAX always fails, as in the hosts' libraries; sanitizers would end the program instead.
#pragma once

// While the object exists, the nth allocation from its construction on fails; one object at a time.
class AllocFault {
 public:
  explicit AllocFault(int nth);
  AllocFault(const AllocFault &) = delete;
  AllocFault &operator=(const AllocFault &) = delete;
  ~AllocFault();

  // Whether there have been that many.
  bool Fired() const;
};
