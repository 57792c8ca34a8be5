// SPDX-License-Identifier: GPL-2.0-only
#include "sizes.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>

namespace snbf {

namespace {

constexpr std::string_view kPrefixes = "KMGTPE";

std::optional<double> unit_bytes(std::string_view suffix) {
  if (suffix.empty() || suffix == "b" || suffix == "B") return 1;
  if (suffix == "s") return 512;
  const size_t power = kPrefixes.find(static_cast<char>(std::toupper(suffix[0])));
  if (power == std::string_view::npos) return std::nullopt;
  const std::string_view rest = suffix.substr(1);
  if (rest.empty() || rest == "iB") return std::pow(1024.0, static_cast<double>(power + 1));
  if (rest == "B") return std::pow(1000.0, static_cast<double>(power + 1));
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> parse_size(std::string_view text) {
  size_t digits = 0;
  while (digits < text.size() &&
         (std::isdigit(static_cast<unsigned char>(text[digits])) || text[digits] == '.')) {
    ++digits;
  }
  if (digits == 0 || text[0] == '.') return std::nullopt;
  const std::string number(text.substr(0, digits));
  const auto unit = unit_bytes(text.substr(digits));
  if (!unit || number.find('.') != number.rfind('.')) return std::nullopt;
  if (number.find('.') == std::string::npos && *unit == 1) {
    errno = 0;
    const unsigned long long whole = std::strtoull(number.c_str(), nullptr, 10);
    if (errno != 0 || whole > INT64_MAX) return std::nullopt;
    return whole;
  }
  const double value = std::strtod(number.c_str(), nullptr) * *unit;
  if (value >= 9223372036854775807.0 || value != std::floor(value)) return std::nullopt;
  return static_cast<uint64_t>(value);
}

std::optional<uint32_t> parse_extent_size(const std::string& text) {
  constexpr uint64_t kLeast = 4096;
  constexpr uint64_t kMost = uint64_t{1} << 30;
  const auto size = parse_size(text);
  if (!size || *size < kLeast || *size > kMost || (*size & (*size - 1)) != 0) return std::nullopt;
  return static_cast<uint32_t>(*size);
}

std::string show_size(uint64_t size_bytes) {
  double value = static_cast<double>(size_bytes);
  size_t power = 0;
  while (value >= 1023.95 && power < kPrefixes.size()) {
    value /= 1024;
    ++power;
  }
  if (power == 0) return fmt::format("{}", size_bytes);
  const double rounded = std::round(value * 10) / 10;
  const char prefix = kPrefixes[power - 1];
  if (rounded == std::floor(rounded)) return fmt::format("{:.0f}{}", rounded, prefix);
  return fmt::format("{:.1f}{}", rounded, prefix);
}

std::string show_size_in(uint64_t size_bytes, char unit) {
  if (unit == 'h') return show_size(size_bytes);
  if (unit == 'b') return fmt::format("{}", size_bytes);
  const size_t power = kPrefixes.find(static_cast<char>(std::toupper(unit)));
  const double divisor = std::pow(1024.0, static_cast<double>(power + 1));
  return fmt::format("{:.2f}", static_cast<double>(size_bytes) / divisor);
}

std::string show_time(int64_t seconds_since_1970) {
  const time_t time = seconds_since_1970;
  struct tm parts;
  ::gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

}  // namespace snbf
