// SPDX-License-Identifier: GPL-2.0-only
// Sizes and times as people write and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace snbf {

// "65536", "64K", "64k", "64KiB", "1.5G", "10s" (512-byte sectors): bytes. Powers of 1024; "64KB"
// is 64,000. Nothing if it is no size or more than 2^63 - 1 bytes.
std::optional<uint64_t> parse_size(std::string_view text);

// What one bit of a change bitmap can stand for: a power of two from 4K to 1G.
std::optional<uint32_t> parse_extent_size(const std::string& text);

// "64K", "1.5G", "0": at most one digit behind the point.
std::string show_size(uint64_t size_bytes);

// In the unit asked for: 'h' as show_size(), 'b' bytes, or one of k, m, g, t with two digits.
std::string show_size_in(uint64_t size_bytes, char unit);

// "2026-11-21T05:14:50Z"
std::string show_time(int64_t seconds_since_1970);

}  // namespace snbf
