// SPDX-License-Identifier: GPL-2.0-only
// Deletion of nodes, SNBF_DEL_NODE, and the teardown of the block driver.
//
// Deletion has two halves. Under the table's write lock: the checks, the lists, the slot; from then
// on nobody finds the node. Behind that lock: the files, the /proc directory, the disk, the
// partition, the memory. The kernel's removals wait for openers and readers, and these wait for the
// table. lifecycle_mutex is held across both, so that the minor does not come back in between.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

namespace snbf {

// Nodes out of the table, in the order in which they are taken apart: snaps before their filter.
using DoomedNodes = List<Node, ByDoom>;

// The second half. No lock is held but lifecycle_mutex; may sleep long.
void take_apart(DoomedNodes& doomed) REQUIRES(lifecycle_mutex);

}  // namespace snbf

int snbf_ioctl_del_node(snbf_minor_cmd& record);

// The first half: moves the node, a filter's snaps before it, into `doomed`. 0, also when the
// delete of a stopping snap was only recorded; or a negative error, and the snaps that went before
// it are gone.
int snbf_block_destroy_device(snbf::Node* node, int remove_files, snbf::DoomedNodes& doomed)
    REQUIRES(snbf::lifecycle_mutex, snbf_blkdev_rwlock);

// At unload: every node, the table, the block major and kdirtyd. 0, or the first error; what is
// then left stays usable, and another call goes on from there.
int snbf_block_destroy();
