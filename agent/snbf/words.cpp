// SPDX-License-Identifier: GPL-2.0-only
#include "words.h"

#include <iterator>
#include <sstream>

namespace snbf {

std::vector<std::string> words_of(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace snbf
