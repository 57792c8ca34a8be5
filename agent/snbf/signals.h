// SPDX-License-Identifier: GPL-2.0-only
// A wish to end, as a flag instead of the process's end.
#pragma once

#include <csignal>

namespace snbf {

// While one lives, SIGINT, SIGTERM and SIGHUP are only noted. One at a time.
class SignalsNoted {
 public:
  SignalsNoted();
  ~SignalsNoted();
  SignalsNoted(const SignalsNoted&) = delete;
  SignalsNoted& operator=(const SignalsNoted&) = delete;

  // One came while one of these lives.
  static bool any();

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction before_[3];
};

}  // namespace snbf
