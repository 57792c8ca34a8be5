// SPDX-License-Identifier: GPL-2.0-only
// A node with the snaps that hang on it, and what each holds.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "facts.h"

namespace snbf {

// `columns`: 0 for any number; else longer texts go on below themselves.
std::string snap_tree_text(const NodeFacts& node, size_t columns, bool unicode);

std::string snap_tree_svg(const std::vector<NodeFacts>& nodes);

}  // namespace snbf
