// SPDX-License-Identifier: GPL-2.0-only
// A value or a negated error number. Where there is no value to give, routines answer a plain int.
#pragma once

namespace snbf {

template <typename T>
class [[nodiscard]] Result {
 public:
  constexpr Result(T value) : value_(value) {}
  static constexpr Result failure(int error) { return Result(error, FailureTag{}); }

  constexpr bool ok() const { return error_ == 0; }
  constexpr int error() const { return error_; }
  constexpr T value() const { return value_; }

 private:
  struct FailureTag {};
  constexpr Result(int error, FailureTag) : error_(error) {}

  T value_{};
  int error_ = 0;
};

}  // namespace snbf
