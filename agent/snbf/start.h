// SPDX-License-Identifier: GPL-2.0-only
// The start of a node, as `start` and `attach --start` have it.
#pragma once

#include "driver.h"

namespace snbf {

// With `resume`, the snaps that were stopped with the node come back with it; what is dead is told.
// Answers the exit status.
int start_node(const Driver& driver, const snbf_info& node, bool resume);

}  // namespace snbf
