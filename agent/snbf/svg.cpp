// SPDX-License-Identifier: GPL-2.0-only
#include "svg.h"

#include <fmt/format.h>

namespace snbf {

std::string escape_xml(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string svg_file(double width, double height, const std::string& title,
                     const std::string& about, const std::string& body) {
  return fmt::format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" "
             "viewBox=\"0 0 {0:.0f} {1:.0f}\" role=\"img\" aria-labelledby=\"title about\"\n"
             "     font-family=\"'DejaVu Sans', 'Noto Sans', Arial, sans-serif\">\n"
             "<title id=\"title\">{2}</title>\n<desc id=\"about\">{3}</desc>\n",
             width, height, escape_xml(title), escape_xml(about)) +
         svg_rect(0, 0, width, height, kPaper) + body + "</svg>\n";
}

std::string svg_text(double x, double y, const std::string& text, const TextStyle& style) {
  return fmt::format(
      "<text x=\"{:.1f}\" y=\"{:.1f}\" font-size=\"{}\" fill=\"{}\"{}{}>{}</text>\n", x, y,
      style.size, style.colour,
      std::string(style.anchor) == "start" ? "" : fmt::format(" text-anchor=\"{}\"", style.anchor),
      style.bold ? " font-weight=\"bold\"" : "", escape_xml(text));
}

std::string svg_rect(double x, double y, double width, double height, const std::string& fill,
                     double radius) {
  return fmt::format(
      "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\"{}/>\n", x, y,
      width, height, fill, radius > 0 ? fmt::format(" rx=\"{:.1f}\"", radius) : "");
}

std::string svg_line(double x1, double y1, double x2, double y2, const char* colour, double width) {
  return fmt::format(
      "<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"{}\" "
      "stroke-width=\"{:.1f}\"/>\n",
      x1, y1, x2, y2, colour, width);
}

std::string svg_circle(double x, double y, double radius, const std::string& fill,
                       const char* line) {
  return fmt::format(
      "<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"{:.1f}\" fill=\"{}\" stroke=\"{}\" "
      "stroke-width=\"2\"/>\n",
      x, y, radius, fill, line);
}

}  // namespace snbf
