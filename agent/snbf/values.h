// SPDX-License-Identifier: GPL-2.0-only
// Times and counts on the command line, checked as they are read: what they are not is misuse.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace snbf {

// "30", "2.5", "500ms", "30s", "2m", "1h": seconds, where no unit stands. Nothing if it is no time.
std::optional<double> parse_seconds(std::string_view text);

// For an option that holds seconds, within these bounds.
CLI::Validator seconds_between(double least_s, double most_s);

// For an option that holds a whole number, from 0 on. The parser would make 2^64 - 1 of -1.
CLI::Validator count();

inline constexpr double kWaitMost_s = 365.0 * 86400;  // of an option that only says how long

std::chrono::milliseconds milliseconds_of(double seconds);

}  // namespace snbf
