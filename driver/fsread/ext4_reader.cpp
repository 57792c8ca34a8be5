// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/ext4_reader.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/chunkmarks.h"
#include "fsread/crc32c.h"
#include "fsread/ext4_layout.h"
#include "fsread/metaread.h"

namespace snbf {

namespace {

constexpr const char* kInit = "ext4_reader_init";
constexpr const char* kRead = "ext4_reader_read";

// Bitmaps that lie side by side are read at once, up to this many bytes.
constexpr u32 kWindowBytes = 256 << 10;

}  // namespace

struct Ext4Reader {
  plat_bdev* bdev;
  Ext4Layout layout;
  u8* super;  // its bytes
  u8* descs;  // one behind the other, whatever blocks they came from
  u8* window;
  u32 window_groups;  // that fit
  u32 window_first;   // the groups whose bitmaps are there, judged and made whole
  u32 window_count;
};

namespace {

int device_major(const Ext4Reader& reader) {
  return static_cast<int>(dev_major(snbf_plat_bdev_device(reader.bdev)));
}
int device_minor(const Ext4Reader& reader) {
  return static_cast<int>(dev_minor(snbf_plat_bdev_device(reader.bdev)));
}

const u8* desc_of(const Ext4Reader& reader, u32 group) {
  return reader.descs + u64{group} * reader.layout.super.desc_size;
}
Ext4Group group_of(const Ext4Reader& reader, u32 group) {
  return ext4_group_at(reader.layout, desc_of(reader, group));
}

bool fail_corrupt(const Ext4Reader& reader) {
  snbf_log(kLogError, "%s(): Superblock of hdd(%d, %d) is corrupt.", kInit, device_major(reader),
           device_minor(reader));
  return false;
}

bool fail_memory() {
  snbf_log(kLogError, "%s(): Memory allocation failed.", kInit);
  return false;
}

bool take_superblock(Ext4Reader& reader, u32* block_size) {
  reader.super = static_cast<u8*>(snbf_plat_virt_alloc(ExtSuper::kBytes));
  if (reader.super == nullptr) return fail_memory();
  const int rc = read_metadata(reader.bdev, reader.super, ExtSuper::kBytes, ExtSuper::kBytes);
  if (rc != 0) {
    snbf_log(kLogError, "%s(): Failed to read Super Block of hdd(%d, %d): rc=%d", kInit,
             device_major(reader), device_minor(reader), rc);
    return false;
  }
  const ExtSuper super = ext_super_at(reader.super);
  if (!super.is_ext() || judge_ext(super).reader == ExtVerdict::Reader::Nobody) {
    snbf_log(3, "%s(): hdd(%d, %d) doesn't have ext4 FS.", kInit, device_major(reader),
             device_minor(reader));
    return false;
  }
  if (!make_ext4_layout(super, snbf_plat_bdev_bytes(reader.bdev), &reader.layout)) {
    return fail_corrupt(reader);
  }
  if (super.has(ExtSuper::kMetadataChecksums) && crc32c(~0u, reader.super, ExtSuper::kBytes - 4) !=
                                                     le32_at(reader.super + ExtSuper::kBytes - 4)) {
    return fail_corrupt(reader);
  }
  if (block_size != nullptr) *block_size = reader.layout.block_size;
  return true;
}

void log_superblock(const Ext4Reader& reader) {
  const Ext4Layout& layout = reader.layout;
  const u64 megabytes = layout.super.blocks_count * layout.block_size >> 20;
  snbf_log(2, "%s(): Detected ext4 FS on hdd(%d, %d)", kInit, device_major(reader),
           device_minor(reader));
  snbf_log(2, "   features=(0x%x, 0x%x, 0x%x)", layout.super.compat, layout.super.incompat,
           layout.super.ro_compat);
  snbf_log(2, "   block_size=%d", static_cast<int>(layout.block_size));
  snbf_log(2, "   cluster_size=%d", static_cast<int>(layout.block_size << layout.cluster_shift));
  snbf_log(2, "   blocks_count=%lld (%lldMB)", static_cast<long long>(layout.super.blocks_count),
           static_cast<long long>(megabytes));
  snbf_log(2, "   blocks_per_group=%d", static_cast<int>(layout.super.blocks_per_group));
  snbf_log(2, "   group_desc_count=%d", static_cast<int>(layout.group_count));
  snbf_log(2, "   group_desc_size=%d", static_cast<int>(layout.super.desc_size));
}

// The blocks of descriptors, run by run: outside of meta block groups all of them are one run.
bool read_descriptors(Ext4Reader& reader) {
  const Ext4Layout& layout = reader.layout;
  reader.descs =
      static_cast<u8*>(snbf_plat_virt_alloc(u64{layout.desc_blocks} * layout.block_size));
  if (reader.descs == nullptr) return fail_memory();
  u32 run = 0;
  for (u32 n = 0; n < layout.desc_blocks; n += run) {
    const u64 block = layout.desc_block(n);
    run = 1;
    while (n + run < layout.desc_blocks && layout.desc_block(n + run) == block + run) ++run;
    const int rc = read_metadata(reader.bdev, reader.descs + u64{n} * layout.block_size,
                                 block * layout.block_size, u64{run} * layout.block_size);
    if (rc == 0) continue;
    snbf_log(kLogError, "%s(): Failed to read Block Group Descriptors of hdd(%d, %d): rc=%d", kInit,
             device_major(reader), device_minor(reader), rc);
    return false;
  }
  return true;
}

bool check_descriptors(const Ext4Reader& reader) {
  const Ext4Layout& layout = reader.layout;
  for (u32 group = 0; group < layout.group_count; ++group) {
    if (ext4_group_is_sound(layout, group, desc_of(reader, group), reader.super + 104)) continue;
    snbf_log(kLogError, "%s(): Descriptor of Block Group %d of hdd(%d, %d) is corrupt.", kInit,
             static_cast<int>(group), device_major(reader), device_minor(reader));
    return false;
  }
  return true;
}

bool make_window(Ext4Reader& reader) {
  const u32 block_size = reader.layout.block_size;
  reader.window_groups = kWindowBytes / block_size;
  reader.window = static_cast<u8*>(snbf_plat_virt_alloc(u64{reader.window_groups} * block_size));
  return reader.window != nullptr || fail_memory();
}

// Sets what of the blocks lies in the group.
void use_blocks(const Ext4Layout& layout, u32 group, u8* bitmap, u64 first, u32 count) {
  const u64 group_first = layout.first_block_of(group);
  const u64 group_end = layout.end_block_of(group);
  if (first >= group_end || first + count <= group_first) return;
  const u64 begin = first > group_first ? first : group_first;
  const u64 end = first + count < group_end ? first + count : group_end;
  for (u64 block = begin; block < end; ++block) {
    set_bit_of(bitmap, (block - group_first) >> layout.cluster_shift);
  }
}

// A group whose bitmap was never written uses what its own metadata takes, and nothing else.
void make_bitmap(const Ext4Layout& layout, u32 number, const Ext4Group& group, u8* bitmap) {
  mem_set(bitmap, 0, layout.block_size);
  const u64 first = layout.first_block_of(number);
  use_blocks(layout, number, bitmap, first, layout.base_meta_blocks(number));
  use_blocks(layout, number, bitmap, group.block_bitmap, 1);
  use_blocks(layout, number, bitmap, group.inode_bitmap, 1);
  use_blocks(layout, number, bitmap, group.inode_table, layout.itable_blocks);
}

// Bits that are set, counted in ever larger fields: nothing here may count on an instruction for
// it.
u32 count_set_bits(u64 word) {
  word -= word >> 1 & 0x5555555555555555;
  word = (word & 0x3333333333333333) + (word >> 2 & 0x3333333333333333);
  word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F;
  return static_cast<u32>(word * 0x0101010101010101 >> 56);
}

u32 count_clear_bits(const u8* bitmap, u32 bits) {
  u32 clear = 0;
  u32 bit = 0;
  for (; bit + 64 <= bits; bit += 64) {
    u64 word;
    mem_copy(&word, bitmap + (bit >> 3), sizeof(word));
    clear += 64 - count_set_bits(word);
  }
  for (; bit < bits; ++bit) clear += bit_of(bitmap, bit) ? 0 : 1;
  return clear;
}

// A bitmap that its descriptor does not bear out says nothing: the whole group counts as used.
void judge_bitmap(const Ext4Reader& reader, u32 number, const Ext4Group& group, u8* bitmap) {
  const Ext4Layout& layout = reader.layout;
  const u32 clear = count_clear_bits(bitmap, layout.clusters_of(number));
  if (clear != group.free_clusters) {
    snbf_log(kLogError,
             "%s(): Number of free blocks (%d) in block group %d is inconsistent with the bitmap "
             "(%d).",
             kRead, static_cast<int>(group.free_clusters), static_cast<int>(number),
             static_cast<int>(clear));
  } else if (!group.has_no_bitmap && !ext4_bitmap_is_sound(layout, group, bitmap)) {
    snbf_log(kLogError, "%s(): Data Bitmap of Block Group %d is corrupt.", kRead,
             static_cast<int>(number));
  } else {
    return;
  }
  mem_set(bitmap, 0xFF, layout.block_size);
}

// How many groups from this one on have their bitmaps side by side on the disk.
u32 run_length(const Ext4Reader& reader, u32 first, u64 first_block) {
  u32 run = 1;
  while (run < reader.window_groups && first + run < reader.layout.group_count) {
    const Ext4Group next = group_of(reader, first + run);
    if (next.has_no_bitmap || next.block_bitmap != first_block + run) break;
    ++run;
  }
  return run;
}

int load_window(Ext4Reader& reader, u32 first) {
  const Ext4Layout& layout = reader.layout;
  const Ext4Group group = group_of(reader, first);
  reader.window_count = 0;
  u32 run = 1;
  if (group.has_no_bitmap) {
    make_bitmap(layout, first, group, reader.window);
  } else {
    if (group.block_bitmap >= layout.super.blocks_count) {
      snbf_log(kLogError, "%s(): Data Bitmap of Block Group %d lies behind the file system", kRead,
               static_cast<int>(first));
      return -EINVAL;
    }
    run = run_length(reader, first, group.block_bitmap);
    const int rc = read_metadata(reader.bdev, reader.window, group.block_bitmap * layout.block_size,
                                 u64{run} * layout.block_size);
    if (rc != 0) {
      snbf_log(kLogError, "%s(): Failed to read Data Bitmap of Block Group %d: rc=%d", kRead,
               static_cast<int>(first), rc);
      return rc;
    }
  }
  for (u32 n = 0; n < run; ++n) {
    judge_bitmap(reader, first + n, group_of(reader, first + n),
                 reader.window + u64{n} * layout.block_size);
  }
  reader.window_first = first;
  reader.window_count = run;
  return 0;
}

int find_bitmap(Ext4Reader& reader, u32 group, const u8** bitmap) {
  if (group < reader.window_first || group - reader.window_first >= reader.window_count) {
    if (int rc = load_window(reader, group); rc != 0) return rc;
  }
  *bitmap = reader.window + u64{group - reader.window_first} * reader.layout.block_size;
  return 0;
}

// Runs of used clusters of one group, as far as they are asked for.
void mark_group(const Ext4Layout& layout, u32 group, const u8* bitmap, ChunkMarks& marks) {
  const u64 first = layout.first_block_of(group);
  const u64 end = layout.end_block_of(group);
  const u32 clusters = layout.clusters_of(group);
  u32 cluster = 0;
  if (marks.first_block() > first) {
    cluster = static_cast<u32>((marks.first_block() - first) >> layout.cluster_shift);
  }
  while (cluster < clusters && first + (u64{cluster} << layout.cluster_shift) < marks.end_block()) {
    if (!bit_of(bitmap, cluster)) {
      cluster += (cluster & 7) == 0 && bitmap[cluster >> 3] == 0 ? 8 : 1;
      continue;
    }
    const u32 begin = cluster;
    while (cluster < clusters && bit_of(bitmap, cluster)) {
      cluster += (cluster & 7) == 0 && bitmap[cluster >> 3] == 0xFF ? 8 : 1;
    }
    const u64 used_end = first + (u64{cluster} << layout.cluster_shift);
    marks.mark(first + (u64{begin} << layout.cluster_shift), used_end < end ? used_end : end);
  }
}

}  // namespace

}  // namespace snbf

using namespace snbf;

Ext4Reader* ext4_reader_init(plat_bdev* bdev, u32* block_size) {
  Ext4Reader* reader = heap_new<Ext4Reader>(PLAT_ALLOC_NORMAL);
  if (reader == nullptr) {
    fail_memory();
    return nullptr;
  }
  ScopeExit drop_reader{[reader] { ext4_reader_destroy(reader); }};
  reader->bdev = bdev;
  if (!take_superblock(*reader, block_size)) return nullptr;
  log_superblock(*reader);
  if (!read_descriptors(*reader)) return nullptr;
  if (!check_descriptors(*reader)) return nullptr;
  if (!make_window(*reader)) return nullptr;
  drop_reader.dismiss();
  return reader;
}

int ext4_reader_read(Ext4Reader* reader, u64 first, u32 chunk_size, u8* bits, u32 chunk_count) {
  if (reader == nullptr) {
    snbf_log(kLogError, "%s(): Invalid reader's context NULL.", kRead);
    return -EINVAL;
  }
  const Ext4Layout& layout = reader->layout;
  if (int rc = check_reader_chunks(kRead, chunk_size, layout.block_size); rc != 0) return rc;
  ChunkMarks marks{bits, first, chunk_count, chunk_size, layout.block_size};
  marks.mark(0, layout.super.first_data_block);
  marks.mark(layout.super.blocks_count,
             blocks_covering(snbf_plat_bdev_bytes(reader->bdev), layout.block_size));
  const u64 front = layout.super.first_data_block;
  u64 block = marks.first_block() > front ? marks.first_block() : front;
  for (; block < marks.end_block() && block < layout.super.blocks_count;) {
    const u32 group = static_cast<u32>((block - front) / layout.super.blocks_per_group);
    const u8* bitmap = nullptr;
    if (int rc = find_bitmap(*reader, group, &bitmap); rc != 0) return rc;
    mark_group(layout, group, bitmap, marks);
    block = layout.end_block_of(group);
  }
  return 0;
}

int ext4_reader_destroy(Ext4Reader* reader) {
  if (reader == nullptr) return 0;
  snbf_plat_virt_free(reader->super);
  snbf_plat_virt_free(reader->descs);
  snbf_plat_virt_free(reader->window);
  snbf_plat_heap_free(reader);
  return 0;
}
