// SPDX-License-Identifier: GPL-2.0-only
// What `snbf watch` shows of a node, from one look and the one before.
#pragma once

#include <optional>
#include <string>

#include "facts.h"
#include "output.h"

namespace snbf {

// Bytes a second between two looks; nothing: not known, or the count began anew.
struct Rates {
  std::optional<double> written;
  std::optional<double> marked;  // new in the Incremental bitmap
};
Rates rates_between(const NodeFacts& before, const NodeFacts& now, double seconds);

// A few lines of at most `width` columns, each with its newline.
std::string watch_panel(const NodeFacts& node, const Rates& rates, size_t width, bool unicode);

// One line for a log, and the same as JSON. `time`: seconds since 1970.
std::string watch_line(const NodeFacts& node, const Rates& rates, int64_t time);
Json watch_json(const NodeFacts& node, const Rates& rates, int64_t time);

}  // namespace snbf
