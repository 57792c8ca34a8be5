// SPDX-License-Identifier: GPL-2.0-only
#include "screen.h"

#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <system_error>

#include "layout.h"

namespace snbf {

namespace {

constexpr const char* kOwnPage = "\033[?1049h\033[?25l";
constexpr const char* kPageBefore = "\033[?25h\033[?1049l";

}  // namespace

bool write_out(const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(1, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EPIPE) return false;
    if (n < 0) throw std::system_error(errno, std::generic_category());
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string drawn_over(const std::string& text, size_t rows) {
  std::string out = "\033[H";
  std::istringstream lines(text);
  size_t row = 0;
  // No newline after the last row: it would scroll the page.
  for (std::string line; row < rows && std::getline(lines, line); ++row) {
    out += (row == 0 ? "" : "\n") + line + "\033[K";
  }
  return out + "\033[J";
}

Screen::Screen() { write_out(kOwnPage); }

Screen::~Screen() {
  try {
    write_out(kPageBefore);
  } catch (const std::exception&) {
    // The terminal is gone.
  }
}

bool Screen::show(const std::string& text) const {
  return write_out(drawn_over(text, terminal_rows()));
}

}  // namespace snbf
