// A file system of the ext family on the partition, as far as a reader of data-block maps looks: a
// superblock, the descriptors of its groups and their block bitmaps, in blocks of 1 KiB. What lies in
// the blocks in use is nobody's business.
//
// Descriptors and bitmaps lie side by side, and go out in one write: whoever sees one of them of some
// time sees all of them of that time.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace snbf::model {

class ExtMap {
 public:
  using u8 = std::uint8_t;
  using u64 = std::uint64_t;

  static constexpr u64 kBlockBytes = 1024;
  static constexpr u64 kSuperSector = 2;
  static constexpr u64 kMapSector = 4;

  // Over the whole partition. One group, or many small ones, which are another reader's.
  ExtMap(u64 partition_bytes, bool small_groups);

  u64 blocks() const { return used_.size(); }
  // Of the map itself, behind kMapSector; nobody else writes below its end.
  u64 map_sectors() const { return 2 * (1 + groups_); }
  u64 end_sector() const { return kMapSector + map_sectors(); }

  // The blocks of the metadata stay in use.
  void set(u64 first, u64 count, bool used);

  // Sectors 2 and 3. Each sector's last 16 bytes are left to its mark.
  std::vector<u8> super() const;
  // From kMapSector on. Of each sector's last 16 bytes 64 bits count as set, whatever is put there.
  std::vector<u8> map() const;

  // The chunks in use of the whole partition, by what map() once was.
  std::vector<bool> used_chunks(std::span<const u8> map, u64 chunk_bytes) const;

 private:
  u64 group_end(u64 group) const;

  u64 partition_bytes_;
  u64 group_blocks_;
  u64 groups_;
  bool is_small_;
  std::vector<bool> used_;  // of each block
};

}  // namespace snbf::model
