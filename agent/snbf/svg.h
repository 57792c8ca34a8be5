// SPDX-License-Identifier: GPL-2.0-only
// What the drawings have in common: the head of the file, its texts and its colours.
#pragma once

#include <string>

namespace snbf {

// Told apart by lightness as well as by hue, so that they hold without red or green, and in print.
inline constexpr const char* kInk = "#1b2733";
inline constexpr const char* kFaint = "#5b6875";
inline constexpr const char* kLine = "#c5ced6";
inline constexpr const char* kPaper = "#ffffff";
inline constexpr const char* kBlue = "#2f78b7";
inline constexpr const char* kOrange = "#c8500a";

std::string escape_xml(const std::string& text);

// A drawing of `width` x `height` pixels around `body`. Screen readers tell the title and `about`.
std::string svg_file(double width, double height, const std::string& title,
                     const std::string& about, const std::string& body);

struct TextStyle {
  int size = 13;
  const char* colour = kInk;
  const char* anchor = "start";  // or "middle", "end"
  bool bold = false;
};
std::string svg_text(double x, double y, const std::string& text, const TextStyle& style = {});

std::string svg_rect(double x, double y, double width, double height, const std::string& fill,
                     double radius = 0);
std::string svg_line(double x1, double y1, double x2, double y2, const char* colour,
                     double width = 1);
std::string svg_circle(double x, double y, double radius, const std::string& fill,
                       const char* line = kPaper);

}  // namespace snbf
