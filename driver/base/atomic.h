// SPDX-License-Identifier: GPL-2.0-only
// An atomic whose every access is also a place where the simulated kernel may switch threads.
#pragma once

#include <atomic>

#include "platform/point.h"

namespace snbf {

template <typename T>
class Atomic {
 public:
  constexpr Atomic() : value_{} {}
  constexpr explicit Atomic(T value) : value_(value) {}
  Atomic(const Atomic&) = delete;
  Atomic& operator=(const Atomic&) = delete;

  T load(std::memory_order order = std::memory_order_seq_cst) const {
    SNBF_PLAT_POINT();
    return value_.load(order);
  }
  void store(T value, std::memory_order order = std::memory_order_seq_cst) {
    SNBF_PLAT_POINT();
    value_.store(value, order);
  }
  T fetch_add(T amount, std::memory_order order = std::memory_order_seq_cst) {
    SNBF_PLAT_POINT();
    return value_.fetch_add(amount, order);
  }
  T fetch_sub(T amount, std::memory_order order = std::memory_order_seq_cst) {
    SNBF_PLAT_POINT();
    return value_.fetch_sub(amount, order);
  }
  T exchange(T value, std::memory_order order = std::memory_order_seq_cst) {
    SNBF_PLAT_POINT();
    return value_.exchange(value, order);
  }
  bool compare_exchange(T& expected, T desired, std::memory_order order = std::memory_order_seq_cst) {
    SNBF_PLAT_POINT();
    return value_.compare_exchange_strong(expected, desired, order);
  }

 private:
  std::atomic<T> value_;
};

}  // namespace snbf
