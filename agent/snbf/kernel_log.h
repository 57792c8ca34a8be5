// SPDX-License-Identifier: GPL-2.0-only
// What the driver says to the kernel log while a command runs.
#pragma once

#include <string>
#include <vector>

#include "files.h"

namespace snbf {

class KernelLog {
 public:
  KernelLog();  // from now on; where the log cannot be read, nothing is ever said
  // The driver's lines since then, without their prefix.
  std::vector<std::string> lines();

 private:
  UniqueFd fd_;
};

// The driver's own line of a record of /dev/kmsg; empty if somebody else wrote it.
std::string driver_line(const std::string& record);

}  // namespace snbf
