// SPDX-License-Identifier: GPL-2.0-only
// A program that somebody looks after while it runs.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "files.h"

namespace snbf {

// Either may be empty.
struct Attendance {
  std::function<void(std::string_view)> output;  // gets what the program prints, as it comes
  std::function<bool()> stop;                    // true: the program is asked to end
};
// As run(): waits for the end.
Ran run_attended(const std::vector<std::string>& arguments, const Attendance& attendance);

}  // namespace snbf
