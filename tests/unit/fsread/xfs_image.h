// An XFS put together byte by byte: superblocks, AG headers and free-space trees.
#pragma once

#include <vector>

#include "put_bytes.h"

namespace snbf::sim {

struct FreeExtent {
  u32 start;
  u32 count;
};

struct XfsImage {
  u32 block_size = 4096;
  u32 ag_blocks = 4096;
  std::vector<u32> ag_lengths = {4096};
  std::vector<std::vector<FreeExtent>> free = {{}};  // of each AG, in order
  u32 per_leaf = 4;                                  // records
  u32 per_node = 3;                                  // keys

  u32 ag_count() const { return static_cast<u32>(ag_lengths.size()); }
  u64 ag_at(u32 ag) const { return u64{ag} * ag_blocks * block_size; }
  u64 device_bytes() const { return ag_at(ag_count() - 1) + u64{ag_lengths.back()} * block_size; }
  // Tree blocks of each AG begin here; the leaves come first, from left to right.
  static constexpr u32 kFirstTreeBlock = 16;
  u32 leaf_count(u32 ag) const {
    const u32 records = static_cast<u32>(free[ag].size());
    return records == 0 ? 1 : (records + per_leaf - 1) / per_leaf;
  }
  u32 leaf_block(u32 leaf) const { return kFirstTreeBlock + leaf; }
  u32 root_block(u32 ag) const {
    u32 width = leaf_count(ag);
    u32 block = kFirstTreeBlock;
    while (width > 1) {
      block += width;
      width = (width + per_node - 1) / per_node;
    }
    return block;
  }

  // On something with poke(sector, bytes).
  template <typename Disk>
  void put_on(Disk* device) const {
    for (u32 ag = 0; ag < ag_count(); ++ag) {
      std::vector<u8> head(1024);
      put_be(head, 0, 0x58465342, 4);
      put_be(head, 4, block_size, 4);
      put_be(head, 84, ag_blocks, 4);
      put_be(head, 88, ag_count(), 4);
      put_be(head, 102, 512, 2);
      put_be(head, 512, 0x58414746, 4);
      put_be(head, 512 + 12, ag_lengths[ag], 4);
      put_be(head, 512 + 16, root_block(ag), 4);
      put_be(head, 512 + 20, 5, 4);
      put_be(head, 512 + 28, 1, 4);
      put_be(head, 512 + 32, 1, 4);
      u32 free_blocks = 0;
      for (const FreeExtent& extent : free[ag]) free_blocks += extent.count;
      put_be(head, 512 + 52, free_blocks, 4);
      device->poke(ag_at(ag) / 512, head);
      put_tree(device, ag);
    }
  }

 private:
  template <typename Disk>
  void put_tree(Disk* device, u32 ag) const {
    std::vector<FreeExtent> keys;  // the first of each block of the level below
    u32 block = kFirstTreeBlock;
    for (u32 leaf = 0; leaf < leaf_count(ag); ++leaf) {
      std::vector<FreeExtent> records;
      for (u32 n = leaf * per_leaf; n < (leaf + 1) * per_leaf && n < free[ag].size(); ++n) {
        records.push_back(free[ag][n]);
      }
      keys.push_back(records.empty() ? FreeExtent{} : records.front());
      put_block(device, ag, block + leaf, 0, records, {},
                leaf + 1 < leaf_count(ag) ? block + leaf + 1 : 0xFFFFFFFF);
    }
    for (u32 level = 1; keys.size() > 1; ++level) {
      const u32 below = block;
      const u32 width = static_cast<u32>(keys.size());
      block += width;
      std::vector<FreeExtent> above;
      const u32 nodes = (width + per_node - 1) / per_node;
      for (u32 node = 0; node < nodes; ++node) {
        std::vector<FreeExtent> records;
        std::vector<u32> children;
        for (u32 n = node * per_node; n < (node + 1) * per_node && n < width; ++n) {
          records.push_back(keys[n]);
          children.push_back(below + n);
        }
        above.push_back(records.front());
        put_block(device, ag, block + node, level, records, children,
                  node + 1 < nodes ? block + node + 1 : 0xFFFFFFFF);
      }
      keys = above;
    }
  }

  template <typename Disk>
  void put_block(Disk* device, u32 ag, u32 block, u32 level,
                 const std::vector<FreeExtent>& records, const std::vector<u32>& children,
                 u32 right) const {
    std::vector<u8> bytes(block_size);
    put_be(bytes, 0, 0x41425442, 4);
    put_be(bytes, 4, level, 2);
    put_be(bytes, 6, records.size(), 2);
    put_be(bytes, 8, 0xFFFFFFFF, 4);
    put_be(bytes, 12, right, 4);
    for (std::size_t n = 0; n < records.size(); ++n) {
      put_be(bytes, 16 + n * 8, records[n].start, 4);
      put_be(bytes, 16 + n * 8 + 4, records[n].count, 4);
    }
    const u64 children_at = 16 + u64{(block_size - 16) / 12} * 8;
    for (std::size_t n = 0; n < children.size(); ++n) {
      put_be(bytes, children_at + n * 4, children[n], 4);
    }
    device->poke((ag_at(ag) + u64{block} * block_size) / 512, bytes);
  }
};

}  // namespace snbf::sim
