// report.h -- the result of each check: what was looked at, what was found, and how to mend it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/public/heap.h"

enum class CheckState : uint8_t {
  kOk,
  kFail,
  kUnknown,  // could not be found out, for example without root
};

// A new string; never null.
[[nodiscard]] HeapStr Text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// `text` (not null) as one word of a shell command; never null.
[[nodiscard]] HeapStr Quoted(const char *text);

// Prints each result to standard output as it is added.  One thread.
class Report {
  bool json_;
  size_t count_ = 0;
  bool failed_ = false;
  bool unknown_ = false;

  void PrintLines(CheckState state, const char *check, const char *detail, const char *mend) const;
  void PrintObject(CheckState state, const char *check, const char *detail, const char *mend) const;
  void Add(CheckState state, const char *check, const HeapStr &detail, const HeapStr &mend);

 public:
  explicit Report(bool json) : json_(json) {}

  // `check` is a constant name that scripts may look for; `detail` is for people (not null), `mend`
  // a shell command, or null where none can help.
  void Ok(const char *check, const HeapStr &detail) {
    Add(CheckState::kOk, check, detail, nullptr);
  }
  void Fail(const char *check, const HeapStr &detail, const HeapStr &mend) {
    Add(CheckState::kFail, check, detail, mend);
  }
  void Unknown(const char *check, const HeapStr &detail, const HeapStr &mend) {
    Add(CheckState::kUnknown, check, detail, mend);
  }

  // Ends the output; false with errno set when it could not all be written.
  [[nodiscard]] bool End() const;

  bool AnyFailed() const { return failed_; }
  bool AnyUnknown() const { return unknown_; }
};
