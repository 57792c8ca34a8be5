// SPDX-License-Identifier: GPL-2.0-only
#include "values.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

namespace snbf {

namespace {

constexpr std::pair<std::string_view, double> kUnits[] = {
    {"", 1}, {"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}};

std::string show_seconds(double seconds) {
  if (seconds >= 3600) return fmt::format("{}h", seconds / 3600);
  return seconds > 0 && seconds < 1 ? fmt::format("{}ms", seconds * 1000)
                                    : fmt::format("{}s", seconds);
}

}  // namespace

std::optional<double> parse_seconds(std::string_view text) {
  const size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, number);
  if (error != std::errc{} || end != text.data() + digits) return std::nullopt;
  for (const auto& [unit, seconds] : kUnits) {
    if (text.substr(digits) == unit) return number * seconds;
  }
  return std::nullopt;
}

CLI::Validator seconds_between(double least_s, double most_s) {
  return CLI::Validator(
      [least_s, most_s](std::string& text) -> std::string {
        const auto seconds = parse_seconds(text);
        if (!seconds || *seconds < least_s || *seconds > most_s) {
          return fmt::format("{} is no time from {} to {}: write it such as 500ms, 30s or 2m",
                             text.empty() ? "nothing" : text, show_seconds(least_s),
                             show_seconds(most_s));
        }
        text = fmt::format("{}", *seconds);
        return "";
      },
      "");
}

CLI::Validator count() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        const bool digits = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
        return digits ? "" : text + " is no number of them: write 0, or a whole number above it";
      },
      "");
}

std::chrono::milliseconds milliseconds_of(double seconds) {
  return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

}  // namespace snbf
