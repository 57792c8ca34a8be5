// SPDX-License-Identifier: GPL-2.0-only
// When a node was last captured.
#pragma once

#include "libsnbf.h"

namespace snbf::lib {

// Notes a capture of the filter node, of that second since 1970. What cannot be written is not known
// later, and nothing else depends on it.
void note_capture(const snbf_info& filter, bool full, int64_t time);

}  // namespace snbf::lib
