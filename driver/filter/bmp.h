// The change bitmaps of a filter node: one bit an extent, set by every write.
//
// The Incremental and the Differential bitmap are of one shape and handled alike; the type code picks the
// Incremental when it is 1, else the Differential. Bit e is bit e mod 8 of byte e / 8. bmp_spin guards
// the contents of both and their dirty fields, which are always changed together with the bits.
#pragma once

#include "base/units.h"
#include "block/node.h"
#include "snbf/protocol.h"

namespace snbf {

// One of a node's two bitmaps, with its name and what belongs to it.
struct ChangeBitmap {
  u32 type;
  const char* text;
  const char* fname;
  u8* bits;
  u32 size_bytes;
  int* dirty;

  static ChangeBitmap of(FilterNode& node, u32 type);
};

// "Incremental", "Differential" or "Unknown".
const char* bmp_type_text(u32 type);

// The checks that every bitmap command begins with, signed by the command: 0 or -EINVAL.
int check_bmp_command(const char* origin, const Node& node, u32 type);

// Sets the bits of all extents that the write touches, in both bitmaps, and has the dirty flag of a file raised whose
// bitmap was clean. May sleep. No spin lock is held.
void mark_extents(FilterNode& node, SectorRange range);

}  // namespace snbf

int snbf_ioctl_get_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_get_and_clr_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_set_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_merge_bmp(snbf::Node& node, snbf_bmp_cmd& record);
int snbf_ioctl_clr_bmp(snbf::Node& node, snbf_bmp_sel& record);
