// SPDX-License-Identifier: GPL-2.0-only
// How a file system on a snap is mounted: read-only, no replay of its log, beside its origin.
#pragma once

#include <string>

namespace snbf {

// As mount(8) takes them; empty: such a file system cannot be mounted while its origin is.
std::string snap_mount_options(const std::string& type);

}  // namespace snbf
