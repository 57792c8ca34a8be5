// SPDX-License-Identifier: GPL-2.0-only
// By what a block device is known again, whatever number or name it comes up with.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "handle.h"

namespace snbf::lib {

// "KIND:VALUE", the surest first:
//   partuuid  a partition's, from its partition table
//   dm        device-mapper's UUID, which LVM, LUKS and multipath give; dm-name where it has none
//   md, bcache  the array's UUID, and that of a cached device
//   wwid, serial  a whole disk's
//   loop      a loop device's backing file, and the offset into it
// A partition without a PARTUUID has those of its disk, with its number behind them. Empty: nothing
// lasting is known of it. Reads the partition table; may wait for the disk.
std::vector<std::string> identities_of(const libsnbf& handle, dev_t device);

}  // namespace snbf::lib
