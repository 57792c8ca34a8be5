// SPDX-License-Identifier: GPL-2.0-only
#include "layout.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "grammar.h"
#include "output.h"

namespace snbf {

namespace {

constexpr size_t kColumnsUnsaid = 80;
constexpr size_t kRowsUnsaid = 24;
constexpr size_t kGap = 2;        // between the columns of a table
constexpr size_t kReadable = 10;  // no text is made narrower

bool goes_on(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// Where the character with that number begins.
size_t byte_of(const std::string& text, size_t character) {
  size_t at = 0;
  while (at < text.size() && character > 0) {
    ++at;
    while (at < text.size() && goes_on(text[at])) ++at;
    --character;
  }
  return at;
}

}  // namespace

size_t terminal_columns() {
  if (!::isatty(1)) return 0;
  winsize size{};
  return ::ioctl(1, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kColumnsUnsaid;
}

size_t terminal_rows() {
  winsize size{};
  return ::ioctl(1, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : kRowsUnsaid;
}

size_t shown_width(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return !goes_on(byte); }));
}

std::string shortened(const std::string& text, size_t width, bool unicode) {
  const size_t all = shown_width(text);
  if (all <= width) return text;
  const std::string mark = unicode ? "…" : "~";
  if (width <= 1) return width == 0 ? "" : mark;
  const size_t head = (width - 1) / 2;
  const size_t tail = width - 1 - head;
  return text.substr(0, byte_of(text, head)) + mark + text.substr(byte_of(text, all - tail));
}

std::vector<size_t> fitted(std::vector<size_t> widths, const std::vector<bool>& may_shrink,
                           size_t gap, size_t room) {
  if (widths.empty()) return widths;
  size_t line = std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
  for (; line > room; --line) {
    size_t* widest = nullptr;
    for (size_t i = 0; i < widths.size(); ++i) {
      const bool counts = may_shrink[i] && widths[i] > kReadable;
      if (counts && (!widest || widths[i] > *widest)) widest = &widths[i];
    }
    if (!widest) break;
    --*widest;
  }
  return widths;
}

std::string table_text(const std::vector<TableColumn>& columns, const TableRows& rows,
                       bool headings, size_t room, bool unicode) {
  std::vector<size_t> widths;
  std::vector<bool> may_shrink;
  for (const TableColumn& column : columns) {
    widths.push_back(headings ? shown_width(column.title) : 0);
    may_shrink.push_back(!column.right);
  }
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], shown_width(row[i]));
  }
  if (room != 0) widths = fitted(std::move(widths), may_shrink, kGap, room);
  std::string out;
  const auto add = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
      const std::string cell = shortened(cells[i], widths[i], unicode);
      const std::string blanks(widths[i] - shown_width(cell), ' ');
      line += (columns[i].right ? blanks + cell : cell + blanks) + std::string(kGap, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + "\n";
  };
  std::vector<std::string> titles;
  for (const TableColumn& column : columns) titles.push_back(column.title);
  if (headings) add(titles);
  for (const auto& row : rows) add(row);
  return out;
}

std::string show_duration(uint64_t seconds) {
  const uint64_t minutes = seconds / 60;
  const uint64_t hours = minutes / 60;
  const auto two = [](uint64_t large, const char* unit, uint64_t small, const char* smaller) {
    return small == 0 ? fmt::format("{} {}", large, unit)
                      : fmt::format("{} {} {} {}", large, unit, small, smaller);
  };
  if (seconds < 60) return fmt::format("{} s", seconds);
  if (minutes < 60) return fmt::format("{} min", minutes);
  if (hours < 24) return two(hours, "h", minutes % 60, "min");
  return two(hours / 24, "d", hours % 24, "h");
}

std::string entry_text(const std::string& label, const std::string& text, size_t columns,
                       bool unicode) {
  const size_t indent = shown_width(label);
  if (columns == 0 || indent + shown_width(text) <= columns) return label + text + "\n";
  std::istringstream words(text);
  std::string fitting;
  const size_t room = columns > indent ? columns - indent : 1;
  for (std::string word; words >> word;) {
    fitting += (fitting.empty() ? "" : " ") + shortened(word, room, unicode);
  }
  return label + wrapped(fitting, columns, indent) + "\n";
}

void print_entry(const std::string& label, const std::string& text) {
  fmt::print("{}", entry_text(label, text, terminal_columns(), terminal_out()));
}

}  // namespace snbf
