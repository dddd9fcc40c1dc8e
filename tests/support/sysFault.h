// sysFault.h -- makes a system call of the product's code fail, or runs something right before it.
//
// For test programs in lumen_sys_faults of tests/unit/CMakeLists.txt.  sysFault.cpp lists the calls.
// Calls from within libc do not count; calls that the test makes while an object exists do.
#pragma once

#include <functional>
#include <string>

// While the object exists, the nth call of `call`, or of any of them with "", fails with errno `error`
// after running `before`.  The real call is not made, except for close, which closes and then fails.  With
// `error` 0 the call is made normally after `before`.  One object at a time.
//
//   for (int n = 1;; n++) {
//     SysFault fault("", n, EIO);
//     const bool ok = ...
//     if (!fault.Fired()) break;      // there were fewer than n calls
//     EXPECT_...(...) << fault.Call();
//   }
class SysFault {
 public:
  SysFault(
      const std::string &call, int nth, int error, std::function<void()> before = [] {});
  SysFault(const SysFault &) = delete;
  SysFault &operator=(const SysFault &) = delete;
  ~SysFault() { Disarm(); }

  // Whether there have been that many.
  bool Fired() const { return !Call().empty(); }
  // The name of the call that failed; "" before.
  std::string Call() const;
  // No more faults from now on.
  void Disarm();
};
