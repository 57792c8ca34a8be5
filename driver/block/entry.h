// SPDX-License-Identifier: GPL-2.0-only
// The block driver's registration and what the kernel calls on a node's disk: snbf_block_open,
// snbf_block_release and snbf_block_ioctl, declared in platform/entry.h.
#pragma once

// 0 or a negative error. The block major stays when a later step fails; snbf_block_fini gives it
// up.
int snbf_block_init();
// Frees the table, which has no node any more, and gives the major up. What is not there is left
// out.
void snbf_block_fini();
