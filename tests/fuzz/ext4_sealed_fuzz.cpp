// An ext4 as it is made today, with checksums and with groups whose bitmaps nobody ever wrote: the damage is sealed.
#include "fsread/crc32c.h"
#include "fsread/ext4_layout.h"
#include "fsread/ext4_reader.h"
#include "put_bytes.h"
#include "reader_fuzz.h"

namespace {

using snbf::u32;
using snbf::u8;
using snbf::fuzz::Page;
using snbf::sim::put_le;

constexpr snbf::u64 kBytes = 60 << 20;

// The first page holds the superblock, and behind it, with blocks of a KiB, all descriptors.
void seal(snbf::u64 at, Page& page) {
  if (at != 0) return;
  u8* super_bytes = page.data() + 1024;
  put_le(page, 2044, snbf::crc32c(~0u, super_bytes, 1020), 4);
  const snbf::ExtSuper super = snbf::ext_super_at(super_bytes);
  if (super.desc_size < 32 || super.desc_size > 2048) return;
  for (u32 group = 0; 2048 + snbf::u64{group + 1} * super.desc_size <= page.size(); ++group) {
    const size_t desc = 2048 + size_t{group} * super.desc_size;
    put_le(page, desc + 30, 0, 2);
    const u8 number[4] = {static_cast<u8>(group), 0, 0, 0};
    const u32 seed = snbf::crc32c(super.checksum_seed, number, sizeof(number));
    put_le(page, desc + 30, snbf::crc32c(seed, page.data() + desc, super.desc_size), 2);
  }
}

}  // namespace

SNBF_FUZZ_READER(ext4_reader, Ext4Reader, kBytes,
                 snbf::fuzz::make_base(kBytes,
                                       "mke2fs -q -F -t ext4 -b 1024 -C 2048 -N 512 -J size=1 "
                                       "-O bigalloc,metadata_csum,^resize_inode @"),
                 snbf::ext4_reader_claim, seal)
