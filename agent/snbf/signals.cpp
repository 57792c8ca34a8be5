// SPDX-License-Identifier: GPL-2.0-only
#include "signals.h"

#include <cstddef>

namespace snbf {

namespace {

volatile std::sig_atomic_t noted = 0;

}  // namespace

SignalsNoted::SignalsNoted() {
  noted = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { noted = 1; };
  for (size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &action, &before_[i]);
}

SignalsNoted::~SignalsNoted() {
  noted = 0;
  for (size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &before_[i], nullptr);
}

bool SignalsNoted::any() { return noted != 0; }

}  // namespace snbf
