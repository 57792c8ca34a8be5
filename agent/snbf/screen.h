// SPDX-License-Identifier: GPL-2.0-only
// A terminal that is drawn over again and again.
#pragma once

#include <string>

namespace snbf {

// Past the buffers of stdio. False: nobody reads any more. Throws if the output fails otherwise.
bool write_out(const std::string& text);

// While one lives, stdout shows a page of its own, without a cursor; then what was there before.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // What does not fit into the terminal's lines is left out.
  bool show(const std::string& text) const;
};

// What draws `text` over the page before, in a terminal of `rows` lines.
std::string drawn_over(const std::string& text, size_t rows);

}  // namespace snbf
