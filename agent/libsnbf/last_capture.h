// SPDX-License-Identifier: GPL-2.0-only
// When a node was last captured.
#pragma once

#include "libsnbf.h"

namespace snbf::lib {

// Notes that a capture of the filter node was committed just now. What cannot be written is not
// known later, and nothing else depends on it.
void note_capture(const snbf_info& filter, bool full);

}  // namespace snbf::lib
