// SPDX-License-Identifier: GPL-2.0-only
// Runs a function when the scope is left, unless it was dismissed.
#pragma once

namespace snbf {

template <typename F>
class ScopeExit {
 public:
  explicit ScopeExit(F undo) : undo_(undo) {}
  ~ScopeExit() {
    if (armed_) undo_();
  }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

  void dismiss() { armed_ = false; }

 private:
  F undo_;
  bool armed_ = true;
};

template <typename F>
ScopeExit(F) -> ScopeExit<F>;

}  // namespace snbf
