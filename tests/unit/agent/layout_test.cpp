// SPDX-License-Identifier: GPL-2.0-only
// Texts and tables fit a terminal, and are whole in a pipe.
#include "layout.h"

#include <gtest/gtest.h>

#include <sstream>

namespace snbf {
namespace {

TEST(ShownWidth, CountsCharacters) {
  EXPECT_EQ(shown_width(""), 0u);
  EXPECT_EQ(shown_width("abc"), 3u);
  EXPECT_EQ(shown_width("a…é█"), 4u);
}

TEST(Shortened, KeepsBothEnds) {
  EXPECT_EQ(shortened("abcdef", 6, true), "abcdef");
  EXPECT_EQ(shortened("abcdefgh", 5, true), "ab…gh");
  EXPECT_EQ(shortened("abcdefgh", 6, false), "ab~fgh");
  EXPECT_EQ(shortened("äöüäöü", 3, true), "ä…ü");
  EXPECT_EQ(shortened("abc", 1, false), "~");
  EXPECT_EQ(shortened("abc", 0, false), "");
}

TEST(Fitted, TakesFromTheWidestThatMayShrink) {
  using Widths = std::vector<size_t>;
  EXPECT_EQ(fitted({30, 20, 10}, {true, true, false}, 2, 64), (Widths{30, 20, 10}));
  EXPECT_EQ(fitted({30, 20, 10}, {true, true, false}, 2, 54), (Widths{20, 20, 10}));
  EXPECT_EQ(fitted({30, 20, 10}, {false, true, false}, 2, 54), (Widths{30, 10, 10}));
  EXPECT_EQ(fitted({30, 20}, {false, false}, 2, 10), (Widths{30, 20}));
  EXPECT_EQ(fitted({30, 30}, {true, true}, 2, 5), (Widths{10, 10})) << "still readable";
  EXPECT_EQ(fitted({}, {}, 2, 5), Widths{});
}

std::string long_table(bool headings, size_t room, bool unicode) {
  const TableRows rows = {
      {std::string(60, 'n'), "64K", "/dev/disk/by-id/" + std::string(60, 'p') + "-part1"},
      {"short", "1.5G", "/dev/sdb1"}};
  return table_text({{"NAME"}, {"SIZE", true}, {"PARTITION"}}, rows, headings, room, unicode);
}

TEST(Table, FitsTheTerminalAndKeepsItsNumbers) {
  const std::string text = long_table(true, 80, true);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(shown_width(line), 80u) << line;
  EXPECT_NE(text.find(" 1.5G "), std::string::npos);
  EXPECT_NE(text.find("…"), std::string::npos);
  EXPECT_NE(text.find("-part1\n"), std::string::npos) << "the end tells which partition";
}

TEST(Table, IsWholeInAPipe) {
  const std::string text = long_table(true, 0, false);
  EXPECT_NE(text.find(std::string(60, 'n')), std::string::npos);
  EXPECT_NE(text.find(std::string(60, 'p')), std::string::npos);
  EXPECT_EQ(long_table(false, 0, false).find("NAME"), std::string::npos);
}

TEST(Table, ColumnsStandBelowEachOther) {
  EXPECT_EQ(table_text({{"A"}, {"B", true}}, {{"x", "1"}, {"long", "200"}}, true, 0, true),
            "A       B\nx       1\nlong  200\n");
}

TEST(EntryText, BreaksBetweenWordsBelowTheText) {
  EXPECT_EQ(entry_text("label ", "one two three", 0, true), "label one two three\n");
  EXPECT_EQ(entry_text("label ", "one two three", 14, true), "label one two\n      three\n");
  EXPECT_EQ(entry_text("l ", "abcdefghijkl x", 8, false), "l ab~jkl\n  x\n");
}

TEST(ShowDuration, NamesTheTwoLargestUnits) {
  EXPECT_EQ(show_duration(0), "0 s");
  EXPECT_EQ(show_duration(59), "59 s");
  EXPECT_EQ(show_duration(725), "12 min");
  EXPECT_EQ(show_duration(7200), "2 h");
  EXPECT_EQ(show_duration(7800), "2 h 10 min");
  EXPECT_EQ(show_duration(100 * 3600), "4 d 4 h");
}

}  // namespace
}  // namespace snbf
