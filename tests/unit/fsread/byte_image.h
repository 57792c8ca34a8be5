// Images of file systems put together byte by byte, and what a reader makes of them.
#pragma once

#include <set>

#include "fsread/reader.h"
#include "parts_rig.h"
#include "put_bytes.h"

namespace snbf::sim {

// Bits that are set among the first `count`.
inline std::set<u64> set_bits(const Bytes& bits, u64 count) {
  std::set<u64> all;
  for (u64 bit = 0; bit < count; ++bit) {
    if (bit_of(bits.data(), bit)) all.insert(bit);
  }
  return all;
}

// An ext2 file system of groups that all keep their bitmaps in the first one. Everything in a
// bitmap is free until it is used; what lies behind the last block is padded as it should be.
struct Ext2Image {
  u32 block_size = 1024;
  u32 blocks_count = 8193;
  u32 first_data_block = 1;
  u32 blocks_per_group = 0;  // 0: as many as the bitmap holds
  u32 inodes_per_group = 128;
  u32 incompat = 0;
  u32 ro_compat = 0;
  u16 magic = 0xEF53;
  std::set<u64> used = {};
  std::set<u32> lying_groups = {};  // whose descriptor counts one free block too many

  u32 group_blocks() const { return blocks_per_group != 0 ? blocks_per_group : block_size * 8; }
  u32 group_count() const {
    return (blocks_count - first_data_block + group_blocks() - 1) / group_blocks();
  }
  u64 desc_blocks() const { return (u64{group_count()} * 32 + block_size - 1) / block_size; }
  u64 bitmap_block(u32 group) const { return first_data_block + 1 + desc_blocks() + group; }

  u64 device_bytes() const { return u64{blocks_count} * block_size; }

  // Its first blocks: all metadata. The rest of the device is zeros.
  Bytes bytes() const {
    Bytes image((bitmap_block(group_count()) + 1) * block_size);
    const u32 log = static_cast<u32>(__builtin_ctz(block_size)) - 10;
    put_le(image, 1024 + 4, blocks_count, 4);
    put_le(image, 1024 + 20, first_data_block, 4);
    put_le(image, 1024 + 24, log, 4);
    put_le(image, 1024 + 32, group_blocks(), 4);
    put_le(image, 1024 + 40, inodes_per_group, 4);
    put_le(image, 1024 + 56, magic, 2);
    put_le(image, 1024 + 96, incompat, 4);
    put_le(image, 1024 + 100, ro_compat, 4);
    for (u32 group = 0; group < group_count(); ++group) {
      const u64 bitmap = bitmap_block(group) * block_size;
      u32 free_blocks = 0;
      for (u64 bit = 0; bit < u64{block_size} * 8; ++bit) {
        const u64 block = u64{group} * group_blocks() + first_data_block + bit;
        const bool is_free = block < blocks_count && !used.contains(block);
        free_blocks += is_free ? 1 : 0;
        if (!is_free) set_bit_of(image.data() + bitmap, bit);
      }
      const u64 desc = (u64{first_data_block} + 1) * block_size + u64{group} * 32;
      put_le(image, desc, bitmap_block(group), 4);
      put_le(image, desc + 12, free_blocks + (lying_groups.contains(group) ? 1 : 0), 2);
    }
    return image;
  }
};

// An image on an opened device.
class ImageOnDevice {
 public:
  ImageOnDevice(Sim& sim, const Bytes& head, u64 device_bytes, const std::string& name = "sda1")
      : disk(sim, {.name = name, .bytes = device_bytes}) {
    disk.device->poke(0, head);
  }
  ImageOnDevice(Sim& sim, const Ext2Image& image)
      : ImageOnDevice(sim, image.bytes(), image.device_bytes()) {}
  plat_bdev* bdev() const { return disk.bdev; }

  OpenDevice disk;
};

}  // namespace snbf::sim
