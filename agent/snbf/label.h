// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <string>

namespace snbf {

// Of the file system on that device; empty if it has none, or is not recognised for certain.
std::string label_of(const std::string& path);

}  // namespace snbf
