// SPDX-License-Identifier: GPL-2.0-only
// A text as words.
#pragma once

#include <string>
#include <vector>

namespace snbf {

// What stands between blanks and newlines.
std::vector<std::string> words_of(const std::string& text);

}  // namespace snbf
