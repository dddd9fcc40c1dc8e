// sysFault.h -- makes a system call of the product's code fail, or does something right before it.
//
// For test programs that are given to lumen_sys_faults in tests/unit/CMakeLists.txt.  The calls are
// those of the lists in sysFault.cpp; what libc calls by itself does not count, what the test calls
// while an object lives does.
#pragma once

#include <functional>
#include <string>

// While it lives, one call fails with errno `error`, the nth from its start: of the calls named
// `call`, or with "" of all.  The call does not happen, but for close, which fails and has closed.
// With `error` 0 the call goes on after `before`.  One object at a time.
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

  // Whether there were that many.
  bool Fired() const { return !Call().empty(); }
  // The name of the call that failed; empty before.
  std::string Call() const;
  // No more faults from here.
  void Disarm();
};
