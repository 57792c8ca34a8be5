// SPDX-License-Identifier: GPL-2.0-only
#include "output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "layout.h"
#include "sizes.h"

namespace snbf {

// A path need not be UTF-8: what is not is replaced.
void print_json(const Json& data) {
  fmt::print("{}\n", data.dump(2, ' ', false, Json::error_handler_t::replace));
}

void note(const std::string& text) { fmt::print(stderr, "{}\n", text); }

void warn(const std::string& text) { fmt::print(stderr, "snbf: warning: {}\n", text); }

std::string joined(const std::vector<std::string>& words) {
  return fmt::format("{}", fmt::join(words, ", "));
}

bool terminal_out() {
  if (!::isatty(1)) return false;
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && value[0]) {
      const std::string text = value;
      return text.find("UTF-8") != std::string::npos || text.find("utf8") != std::string::npos;
    }
  }
  return false;
}

bool terminal_err() { return ::isatty(2) != 0; }

void Table::print(bool headings) const {
  std::vector<TableColumn> columns;
  for (const Column& column : columns_) columns.push_back({column.title, column.right});
  fmt::print("{}", table_text(columns, rows_, headings, terminal_columns(), terminal_out()));
}

Progress::Progress(std::string label, uint64_t total_bytes)
    : label_(std::move(label)), total_bytes_(total_bytes), visible_(terminal_err()) {}

Progress::~Progress() {
  if (visible_ && shown_percent_ >= 0) fmt::print(stderr, "\r\033[K");
}

void Progress::add(uint64_t bytes) {
  done_bytes_ += bytes;
  if (!visible_ || total_bytes_ == 0) return;
  const int percent = static_cast<int>(std::min<uint64_t>(100, done_bytes_ * 100 / total_bytes_));
  if (percent == shown_percent_) return;
  shown_percent_ = percent;
  fmt::print(stderr, "\r{} {:3}%  {} of {}\033[K", label_, percent, show_size(done_bytes_),
             show_size(total_bytes_));
}

}  // namespace snbf
