// SPDX-License-Identifier: GPL-2.0-only
// Where a file system ends on its device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace snbf {

// The driver has a reader for file systems of this kind, as blkid(8) names it.
bool has_reader(const std::string& type);

// Bytes from the device's start to the end of the file system of that kind, by its superblock.
// Nothing for a kind without a reader, for a superblock that is not of that kind, and for one that
// claims more than the device has.
std::optional<uint64_t> file_system_end(const std::string& path, const std::string& type);

}  // namespace snbf
