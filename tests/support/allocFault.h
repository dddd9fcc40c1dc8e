// allocFault.h -- makes an allocation of the product's code fail.
//
// For test programs that are linked with --wrap=malloc,--wrap=calloc,--wrap=realloc.  There a size
// above PTRDIFF_MAX fails always, as it does in the hosts' libraries; sanitizers would end the
// program instead.
#pragma once

// While it lives, the nth allocation from its start fails; one object at a time.
class AllocFault {
 public:
  explicit AllocFault(int nth);
  AllocFault(const AllocFault &) = delete;
  AllocFault &operator=(const AllocFault &) = delete;
  ~AllocFault();

  // Whether there were that many.
  bool Fired() const;
};
