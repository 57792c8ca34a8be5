// SPDX-License-Identifier: GPL-2.0-only
// Files that others than their writer may read.
#pragma once

#include <string>

namespace snbf {

// As replace_file(), with another mode than 0600, of which the umask takes its part.
void replace_file_of_mode(const std::string& path, const std::string& contents, unsigned mode);

}  // namespace snbf
