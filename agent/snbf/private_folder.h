// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <string>

namespace snbf {

// For files that hold what a partition holds: nobody but the owner reads in it. Its parent has to be
// there. One that is there stays as it is. Throws Failure.
void make_private_folder(const std::string& path);

}  // namespace snbf
