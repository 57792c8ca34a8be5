// SPDX-License-Identifier: GPL-2.0-only
// What goes to the reader: data to stdout, all else to stderr.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace snbf {

using Json = nlohmann::ordered_json;

void print_json(const Json& data);
void note(const std::string& text);  // to stderr
void warn(const std::string& text);  // to stderr, marked

// "a, b, c"
std::string joined(const std::vector<std::string>& words);

bool terminal_out();  // stdout is a terminal that takes UTF-8
bool terminal_err();

// Columns as wide as their widest cell; numbers to the right.
class Table {
 public:
  struct Column {
    std::string title;
    bool right = false;
  };
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  void print(bool headings) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// One line that is drawn over itself, on a terminal only.
class Progress {
 public:
  Progress(std::string label, uint64_t total_bytes);
  ~Progress();
  void add(uint64_t bytes);

 private:
  std::string label_;
  uint64_t total_bytes_;
  uint64_t done_bytes_ = 0;
  int shown_percent_ = -1;
  bool visible_;
};

}  // namespace snbf
