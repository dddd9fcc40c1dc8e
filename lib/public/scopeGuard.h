// scopeGuard.h -- runs a one-off undo step when the scope ends, unless it was dismissed.
#pragma once

#include <utility>

template <typename F>
class ScopeGuard {
  F undo_;
  bool armed_ = true;

 public:
  explicit ScopeGuard(F undo) noexcept : undo_(std::move(undo)) {}
  ScopeGuard(const ScopeGuard &) = delete;
  ScopeGuard &operator=(const ScopeGuard &) = delete;
  ~ScopeGuard() {
    if (armed_) undo_();
  }
  void Dismiss() noexcept { armed_ = false; }
};
