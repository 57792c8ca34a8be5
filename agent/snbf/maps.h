// SPDX-License-Identifier: GPL-2.0-only
// Where a device changed, in one line.
#pragma once

#include <string>

#include "extents.h"

namespace snbf {

// `width` characters, from the start of the device to its end: the fuller, the more changed. A
// slice with any change at all is never blank.
std::string strip(const Extents& extents, size_t width, bool unicode);

}  // namespace snbf
