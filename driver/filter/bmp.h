// SPDX-License-Identifier: GPL-2.0-only
// The change bitmaps of a filter node: one bit an extent, set by every write.
//
// The Incremental and the Differential bitmap are of one shape and handled alike; the type code
// picks the Incremental when it is 1, else the Differential. Bit e is bit e mod 8 of byte e / 8.
// bmp_spin guards the contents of both and their dirty fields, which always change in one holding
// with the bits: a bitmap is dirty while it holds something that its file does not.
#pragma once

#include "base/units.h"
#include "block/node.h"
#include "snbf/protocol.h"

namespace snbf {

// One of a node's two bitmaps.
class ChangeBitmap {
 public:
  ChangeBitmap(FilterNode& owner, u32 type) : node(owner), is_incr_(type == SNBF_BMP_INCR) {}

  u32 type() const { return is_incr_ ? SNBF_BMP_INCR : SNBF_BMP_DIFF; }

  const char* text() const { return is_incr_ ? "Incremental" : "Differential"; }
  const char* fname() const { return is_incr_ ? node.incr_bmp_fname : node.diff_bmp_fname; }
  u32 size_bytes() const { return is_incr_ ? node.incr_bmp_size : node.diff_bmp_size; }

  plat_devt& store() const { return is_incr_ ? node.incr_bmp_store : node.diff_bmp_store; }

  u8* bits() const REQUIRES(node.bmp_spin) {
    return reinterpret_cast<u8*>(is_incr_ ? node.incr_bmp : node.diff_bmp);
  }
  int is_dirty() const REQUIRES(node.bmp_spin) {
    return is_incr_ ? node.incr_bmp_dirty : node.diff_bmp_dirty;
  }
  void set_dirty(int dirty) const REQUIRES(node.bmp_spin) {
    (is_incr_ ? node.incr_bmp_dirty : node.diff_bmp_dirty) = dirty;
  }
  FileGuard& guard() const REQUIRES(node.bmp_spin) {
    return is_incr_ ? node.incr_guard : node.diff_guard;
  }
  // Every byte of it, and with that a bitmap that its file does not show.
  void fill(int byte) const REQUIRES(node.bmp_spin);

  FilterNode& node;

 private:
  bool is_incr_;
};

// "Incremental", "Differential" or "Unknown".
const char* bmp_type_text(u32 type);

// What every bitmap command begins with, logged for the command `origin`: 0 or -EINVAL.
int check_bmp_command(const char* origin, const Node& node, u32 type);

// Sets the bits of all extents that the write touches, in both bitmaps, and has the dirty flag
// raised in the file of a bitmap that was clean. The range is not empty. True: the write may go on. False: a
// whole file lacks something, or a parked write overlaps this one; unless it is null, the write has been parked.
// No spin lock is held; may sleep, but not for the flag.
bool mark_extents(FilterNode& node, SectorRange range, plat_bio* write = nullptr,
                  Arrival arrival = Arrival::First);

}  // namespace snbf

int snbf_ioctl_get_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_get_and_clr_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_set_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_merge_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_clr_bmp(snbf::Node& node, snbf_bmp_sel& record);
