// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/reiserfs_claim.h"

#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/metaread.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "reiserfs_claim";

constexpr u32 kSuperOffset = 65536;
constexpr u32 kSuperBytes = 80;
constexpr char kMagic[10] = "ReIsEr2Fs";
constexpr char kDescMagic[8] = {'R', 'e', 'I', 's', 'E', 'r', 'L', 'B'};
constexpr u32 kBlockSizeMin = 512;
constexpr u32 kBlockSizeMax = 8192;

// Whether the journal's oldest transaction is still to be put in place. The header behind the
// journal names the last one that was, and where the next one begins; before there was any, a
// journal that is used begins at its first block.
enum class Journal { Empty, Pending, Unknown };

Journal look_at_journal(plat_bdev* bdev, const u8* super, u8* block, u32 block_size) {
  const u64 first = le32_at(super + 12);
  const u32 size = le32_at(super + 20);
  const bool is_elsewhere = le32_at(super + 16) != 0;
  if (is_elsewhere) return Journal::Unknown;
  if (read_metadata(bdev, block, (first + size) * block_size, block_size) != 0) {
    return Journal::Unknown;
  }
  const u32 last_flushed = le32_at(block);
  const u32 next_at = le32_at(block + 4);
  const u64 next = last_flushed != 0 && next_at < size ? first + next_at : first;
  if (read_metadata(bdev, block, next * block_size, block_size) != 0) return Journal::Unknown;
  const bool is_desc = mem_compare(block + block_size - 12, kDescMagic, sizeof(kDescMagic)) == 0;
  if (!is_desc) return Journal::Empty;
  // What an earlier round through the journal has left there is older.
  return last_flushed != 0 && le32_at(block) <= last_flushed ? Journal::Empty : Journal::Pending;
}

}  // namespace

Claim reiserfs_claim(plat_bdev* bdev) {
  if (snbf_plat_bdev_bytes(bdev) < kSuperOffset + kSuperBytes) return Claim::NotMine;
  VirtBuffer buffer{kBlockSizeMax};
  u8 super[kSuperBytes];
  const bool is_read = buffer && read_metadata(bdev, super, kSuperOffset, kSuperBytes) == 0;
  const int major = static_cast<int>(dev_major(snbf_plat_bdev_device(bdev)));
  const int minor = static_cast<int>(dev_minor(snbf_plat_bdev_device(bdev)));
  if (!is_read) {
    snbf_log(kLogError, "%s(): Failed to look for ReiserFS on hdd(%d, %d)", kOrigin, major, minor);
    return Claim::Nobodys;
  }
  if (mem_compare(super + 52, kMagic, sizeof(kMagic)) != 0) return Claim::NotMine;
  const u32 block_size = le16_at(super + 44);
  const bool is_sane =
      is_power_of_two(block_size) && block_size >= kBlockSizeMin && block_size <= kBlockSizeMax;
  if (!is_sane) return Claim::NotMine;  // the reader's to refuse
  // Its state is not asked: that it is mounted, too, stands in the journal long before it stands
  // here.
  switch (look_at_journal(bdev, super, buffer.data(), block_size)) {
    case Journal::Empty:
      return Claim::NotMine;
    case Journal::Pending:
      snbf_log(
          1,
          "%s(): ReiserFS on hdd(%d, %d) has a journal that is not replayed: no reader claims it",
          kOrigin, major, minor);
      break;
    case Journal::Unknown:
      snbf_log(
          1, "%s(): ReiserFS on hdd(%d, %d) has a journal that cannot be read: no reader claims it",
          kOrigin, major, minor);
      break;
  }
  return Claim::Nobodys;
}

}  // namespace snbf
