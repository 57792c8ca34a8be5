// SPDX-License-Identifier: GPL-2.0-only
// What the driver's test of its file-system readers has found, in plain words.
#pragma once

#include <string>
#include <vector>

#include "failure.h"

namespace snbf {

struct Verdict {
  const char* code;  // stays: "good", "wrong", "unknown", "busy", "failed"
  Exit status;
  std::string text;
  std::string fix;  // empty: none is needed
};

// `rc` is the driver's answer, `lines` what it said meanwhile, `contents` what stands on the device
// as other tools see it, or nothing.
Verdict judge_selftest(int rc, const std::vector<std::string>& lines, const std::string& contents);

}  // namespace snbf
