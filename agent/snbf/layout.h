// SPDX-License-Identifier: GPL-2.0-only
// How texts are made to fit the columns of a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace snbf {

// Columns of the terminal that is stdout; 80 if it does not say; 0: stdout is none.
size_t terminal_columns();
size_t terminal_rows();  // 24 if it does not say

// Columns that a UTF-8 text takes, of characters that take one each.
size_t shown_width(const std::string& text);

// At most `width` columns: the middle goes, since both ends of a path tell more than it.
std::string shortened(const std::string& text, size_t width, bool unicode);

// The widths of a table's columns, the widest of those that may shrink made smaller until a line
// takes `room` columns with `gap` between two, or until none of them is wider than it has to be to
// stay readable.
std::vector<size_t> fitted(std::vector<size_t> widths, const std::vector<bool>& may_shrink,
                           size_t gap, size_t room);

// A table, each line with its newline: columns as wide as their widest cell, numbers to the right.
// `room`: the columns of the terminal; 0: any number.
struct TableColumn {
  std::string title;
  bool right = false;
};
using TableRows = std::vector<std::vector<std::string>>;
std::string table_text(const std::vector<TableColumn>& columns, const TableRows& rows,
                       bool headings, size_t room, bool unicode);

// "45 s", "12 min", "2 h 10 min", "3 d 4 h": of the two largest units.
std::string show_duration(uint64_t seconds);

// The label and the text, one line; or, if that takes more than `columns` (0: any number), broken
// between words with the later lines below the text, and words that are too long shortened.
std::string entry_text(const std::string& label, const std::string& text, size_t columns,
                       bool unicode);
// Prints that, as stdout needs it.
void print_entry(const std::string& label, const std::string& text);

}  // namespace snbf
