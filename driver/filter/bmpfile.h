// SPDX-License-Identifier: GPL-2.0-only
// The files of the change bitmaps: load, save, and the dirty flag.
//
// A file, all little-endian: 0 "SNBFBMP", 7 dirty byte, 8 size of the bitmap in bytes, 12 checksum,
// 16 the bitmap. Its life:
//   1. a full save writes all of it, with a dirty byte of 0;
//   2. the first bit set after that has it cut down to the magic and a dirty byte of 1, before its write reaches
//      the partition: what it held is no longer true, and a load must not accept it;
//   3. the next save makes it whole again.
// What cannot be verified is not trusted: the bitmap then becomes all ones and must be saved.
//
// Nobody keeps the file open, so its store can be unmounted under a started node. It is only made anew in the file
// system in which it was last seen. Elsewhere, while the file left behind may be whole, a flag is raised in what lies
// there and counts as failed, and a save fails; once its flag is up a save follows the path to a file that is there.
//
// bmp_mutex serialises all file work of a node; file work is never done under bmp_spin. Everything
// may sleep.
#pragma once

#include "block/node.h"
#include "snbf/protocol.h"

// 0 or a negative error. The bitmap is all ones after anything but a whole, clean, fitting file
// (but for -ENOMEM, which leaves it).
int snbf_block_load_bmp(snbf::FilterNode& node, snbf::u32 type);
// Both; the Incremental's result if it is not 0, else the Differential's.
int snbf_block_load_bmps(snbf::FilterNode& node);
// 0 or a negative error, after which the bitmap still counts as to be saved.
int snbf_block_save_bmp(snbf::FilterNode& node, snbf::u32 type);
// Those that changed since their last save; the result as of load_bmps.
int snbf_block_save_dirty_bmps(snbf::FilterNode& node);
// Raises (or lowers, which nobody in the driver does) the dirty byte in the file. The node's own dirty field stays:
// kdirtyd raises that itself before.
int snbf_block_write_dirty_flag(snbf::FilterNode& node, snbf::u32 type, int flag);
namespace snbf {
// Raises one that was given up, in the file that is there: while its store is away, another file system may lie in
// its place, where a new file would say nothing of the old one.
void retry_dirty_flag(FilterNode& node, u32 type);
}  // namespace snbf

int snbf_ioctl_load_bmp(snbf::Node& node, snbf_bmp_sel& record);
int snbf_ioctl_save_bmp(snbf::Node& node, snbf_bmp_sel& record);
