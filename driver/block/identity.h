// SPDX-License-Identifier: GPL-2.0-only
// What filter and snap nodes get alike as they are created.
#pragma once

#include "base/result.h"
#include "block/node.h"
#include "snbf/protocol.h"

namespace snbf {

// A random one, "{" to "}" and terminated. Never fails; does not sleep.
void make_uuid(char (&uuid)[SNBF_UUID_BYTES]);

// The minor asked for, or the lowest free one for a negative wish. Nobody else adds nodes meanwhile.
Result<u32> choose_minor(const char* origin, int wish) REQUIRES_SHARED(snbf_blkdev_rwlock);

// Disk with the node's name and minor, not visible yet, as large as the filter's partition and with
// its limits; null on failure, which is logged. Requests to it come to the driver once it is added.
plat_disk* allocate_disk(const char* origin, const Node& node, const FilterNode& filter);

// The file /dev/snbf/`file_name`, whatever has been there. A node without its file can still be used by
// number: that does not fail a creation.
void make_device_file(Node& node, const char* file_name);

}  // namespace snbf
