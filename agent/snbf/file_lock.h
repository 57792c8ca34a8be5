// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <string>

namespace snbf {

// Whether somebody has that file locked for himself alone. It is asked by holding it for a moment;
// a file that is not there, or cannot be read, is not locked.
bool is_locked(const std::string& path);

}  // namespace snbf
