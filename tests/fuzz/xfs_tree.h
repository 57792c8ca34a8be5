// A tree of free space that has grown: mkfs.xfs makes trees of one leaf.
#pragma once

#include <algorithm>

#include "device.h"
#include "fsread/reader.h"
#include "put_bytes.h"

namespace snbf::fuzz {

// The first group's, in an XFS of blocks and sectors of 4 KiB: its last free extent is scattered over five leaves more,
// which stand at its end. `header`: bytes of a tree block's.
inline Pages with_grown_tree(Pages pages, u32 header) {
  constexpr u32 kLeaves = 5, kRecords = 4, kApart = 100, kLong = 40;
  Page& agf = pages.at(4096);
  const u64 root_at = u64{be32_at(agf.data() + 16)} * 4096;
  Page root = pages.at(root_at);
  const u32 records = be16_at(root.data() + 6);
  const size_t last = header + 8 * (size_t{records} - 1);
  const u32 first = be32_at(root.data() + last);
  const u32 end = first + be32_at(root.data() + last + 4);
  // The old leaf keeps what it had but for its last extent, and the others follow it.
  auto block_of = [end](u32 leaf) { return end - 1 - leaf; };
  const size_t children = header + (4096 - size_t{header}) / 12 * 8;
  Page grown = root;
  sim::put_be(grown, 4, 1, 2);
  sim::put_be(grown, 6, kLeaves + 1, 2);
  for (u32 leaf = 0; leaf <= kLeaves; ++leaf) {
    Page page = root;
    sim::put_be(page, 12, leaf < kLeaves ? block_of(leaf + 1) : 0xFFFFFFFF, 4);
    if (header > 16) sim::put_be(page, 16, u64{block_of(leaf)} * 8, 8);
    sim::put_be(page, 6, leaf == 0 ? records - 1 : kRecords, 2);
    for (u32 n = 0; leaf > 0 && n < kRecords; ++n) {
      sim::put_be(page, header + n * 8, first + ((leaf - 1) * kRecords + n) * kApart, 4);
      sim::put_be(page, header + n * 8 + 4, kLong, 4);
    }
    std::copy_n(page.begin() + header, 8, grown.begin() + header + leaf * 8);
    sim::put_be(grown, children + leaf * 4, block_of(leaf), 4);
    pages[u64{block_of(leaf)} * 4096] = page;
  }
  pages[root_at] = grown;
  sim::put_be(agf, 28, 2, 4);
  return pages;
}

}  // namespace snbf::fuzz
