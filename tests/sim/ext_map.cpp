#include "ext_map.h"

#include <algorithm>

#include "put_bytes.h"

namespace snbf::model {

namespace {

using sim::put_le;

constexpr std::uint64_t kFirstDataBlock = 1, kSuperAt = 1024;
constexpr std::uint64_t kDescBytes = 32;
constexpr std::uint64_t kBitsOfBlock = ExtMap::kBlockBytes * 8;
constexpr std::uint64_t kMarkBits = 128;  // half of them set
constexpr std::uint64_t kSmallGroup = 256;

bool bit_at(std::span<const ExtMap::u8> bytes, std::uint64_t bit) {
  return (bytes[bit / 8] >> bit % 8 & 1) != 0;
}

}  // namespace

ExtMap::ExtMap(u64 partition_bytes, bool small_groups)
    : partition_bytes_(partition_bytes),
      group_blocks_(small_groups ? kSmallGroup : kBitsOfBlock),
      is_small_(small_groups),
      used_(partition_bytes / kBlockBytes) {
  groups_ = (blocks() - kFirstDataBlock + group_blocks_ - 1) / group_blocks_;
  set(0, end_sector() / 2, true);
}

ExtMap::u64 ExtMap::group_end(u64 group) const {
  return std::min(kFirstDataBlock + (group + 1) * group_blocks_, blocks());
}

void ExtMap::set(u64 first, u64 count, bool used) {
  const u64 end = std::min(first + count, blocks());
  for (u64 block = first; block < end; ++block) used_[block] = used || block < end_sector() / 2;
}

std::vector<ExtMap::u8> ExtMap::super() const {
  std::vector<u8> bytes(kBlockBytes);
  put_le(bytes, 4, blocks(), 4);
  put_le(bytes, 20, kFirstDataBlock, 4);
  put_le(bytes, 32, group_blocks_, 4);
  put_le(bytes, 36, group_blocks_, 4);
  put_le(bytes, 40, 128, 4);
  put_le(bytes, 56, 0xEF53, 2);
  return bytes;
}

std::vector<ExtMap::u8> ExtMap::map() const {
  std::vector<u8> bytes(map_sectors() * 512);
  for (u64 group = 0; group < groups_; ++group) {
    const u64 first = kFirstDataBlock + group * group_blocks_;
    u64 free_blocks = is_small_ ? 0 : kBlockBytes / 512 * (kMarkBits / 2);
    u8* bitmap = &bytes[(1 + group) * kBlockBytes];
    for (u64 bit = 0; bit < kBitsOfBlock; ++bit) {
      const bool is_free = first + bit < group_end(group) && !used_[first + bit];
      free_blocks += is_free ? 1 : 0;
      if (!is_free) bitmap[bit / 8] |= static_cast<u8>(1 << bit % 8);
    }
    put_le(bytes, group * kDescBytes, kMapSector / 2 + 1 + group, 4);
    put_le(bytes, group * kDescBytes + 12, free_blocks, 2);
  }
  return bytes;
}

std::vector<bool> ExtMap::used_chunks(std::span<const u8> map, u64 chunk_bytes) const {
  const u64 chunk_blocks = chunk_bytes / kBlockBytes;
  std::vector<bool> chunks((partition_bytes_ + chunk_bytes - 1) / chunk_bytes);
  chunks[0] = true;  // the first blocks lie in front of every group
  for (u64 group = 0; group < groups_; ++group) {
    const u64 first = kFirstDataBlock + group * group_blocks_;
    const std::span<const u8> bitmap = map.subspan((1 + group) * kBlockBytes, kBlockBytes);
    const u8* desc = &map[group * kDescBytes];
    const u64 counted = is_small_ ? group_end(group) - first : kBitsOfBlock;
    u64 clear = 0;
    for (u64 bit = 0; bit < counted; ++bit) clear += bit_at(bitmap, bit) ? 0 : 1;
    // Torn, where a write of it has failed: the group counts as used.
    const bool lies = clear != desc[12] + u64{desc[13]} * 256;
    for (u64 block = first; block < group_end(group); ++block) {
      if (lies || bit_at(bitmap, block - first)) chunks[block / chunk_blocks] = true;
    }
  }
  // Behind the last block something may lie that is no block.
  if (is_small_ && partition_bytes_ % kBlockBytes != 0) chunks.back() = true;
  return chunks;
}

}  // namespace snbf::model
