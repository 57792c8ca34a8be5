// Maps of file systems that mke2fs and debugfs made, beside what dumpe2fs says.
#include <algorithm>

#include "real_image.h"

namespace snbf::sim {
namespace {

struct Made {
  const char* name;
  u64 megabytes;
  const char* tool;
  const char* reader;  // the line that says who read it
};

void PrintTo(const Made& made, std::ostream* out) { *out << made.name; }

class ExtImages : public ::testing::TestWithParam<Made> {};

constexpr const char* kExt4 = "ext4_reader_init(): Detected ext4 FS";
constexpr const char* kExt2 = "ext2_reader_init(): Detected ext2/ext3 FS";

TEST_P(ExtImages, NoUsedBlockIsCalledFree) {
  const Made& made = GetParam();
  const RealImage image(made.megabytes << 20, made.tool);
  const Truth truth = image.ext_truth();
  ASSERT_GT(truth.block_size, 0u);
  if (made.megabytes <= 600) {
    EXPECT_EQ(self_test(image), 0);
  }
  for (u32 chunk_size : {truth.block_size, 4096u, 65536u, 1u << 20}) {
    if (chunk_size < truth.block_size) continue;
    const Comparison found = compare_with_truth(image, truth, chunk_size);
    EXPECT_EQ(found.rc, 0) << found.log;
    EXPECT_NE(found.log.find(made.reader), std::string::npos) << found.log;
    EXPECT_EQ(found.used_called_free, 0u);
    if (chunk_size <= 4096) {
      EXPECT_GT(found.free_chunks, 0u);
    }
    // The chunk that the file system ends in, and, of ext2, the padding in front of its first
    // group.
    EXPECT_LE(found.free_called_used, 1u) << "of " << found.free_chunks;
    EXPECT_EQ(found.log.find("inconsistent"), std::string::npos) << found.log;
  }
}

constexpr Made kMade[] = {
    {"ext2_of_1k_blocks", 40, "mke2fs -q -F -t ext2 -b 1024 -d % @", kExt2},
    {"ext2_of_2k_blocks", 40, "mke2fs -q -F -t ext2 -b 2048 -d % @", kExt2},
    {"ext2_of_4k_blocks", 300, "mke2fs -q -F -t ext2 -b 4096 -d % @", kExt2},
    {"ext3", 300, "mke2fs -q -F -t ext3 -d % @", kExt2},
    {"ext3_nearly_full", 48, "mke2fs -q -F -t ext3 -b 1024 -m 0 -J size=4 -d % @", kExt2},
    {"ext3_with_a_short_last_group", 139, "mke2fs -q -F -t ext3 -b 4096 -d % @ 35000", kExt2},
    {"ext3_aged", 100,
     "mke2fs -q -F -t ext3 -b 1024 -d % @ && "
     "for n in 3 5 7 11 13 17 19 23 29 100 101 102 150; do echo rm f$n; done | debugfs -w -f - @",
     kExt2},
    {"ext2_revision_0", 40, "mke2fs -q -F -r 0 -d % @", kExt2},
    {"ext4_without_64_bits", 300, "mke2fs -q -F -t ext4 -O ^64bit,^metadata_csum,^uninit_bg -d % @",
     kExt2},
    {"ext4", 600, "mke2fs -q -F -t ext4 -d % @", kExt4},
    {"ext4_of_1k_blocks", 100, "mke2fs -q -F -t ext4 -b 1024 -d % @", kExt4},
    {"ext4_of_2k_blocks", 300, "mke2fs -q -F -t ext4 -b 2048 -d % @", kExt4},
    {"ext4_of_64k_blocks", 600, "mke2fs -q -F -F -t ext4 -b 65536 -d % @", kExt4},
    {"ext4_of_32_bit_descriptors", 600, "mke2fs -q -F -t ext4 -O ^64bit -d % @", kExt4},
    {"ext4_of_128_byte_descriptors", 600, "mke2fs -q -F -t ext4 -E desc_size=128 -d % @", kExt4},
    {"ext4_without_checksums", 600, "mke2fs -q -F -t ext4 -O ^metadata_csum,^uninit_bg -d % @",
     kExt4},
    {"ext4_with_group_checksums", 600, "mke2fs -q -F -t ext4 -O ^metadata_csum,uninit_bg -d % @",
     kExt4},
    {"ext4_with_group_checksums_of_32_bits", 600,
     "mke2fs -q -F -t ext4 -O ^64bit,^metadata_csum,uninit_bg -d % @", kExt4},
    {"ext4_without_flexible_groups", 600, "mke2fs -q -F -t ext4 -O ^flex_bg -d % @", kExt4},
    {"ext4_of_large_flexible_groups", 1500, "mke2fs -q -F -t ext4 -G 256 -b 1024 -d % @", kExt4},
    {"ext4_of_small_groups", 300, "mke2fs -q -F -t ext4 -b 1024 -g 256 -N 20000 -d % @", kExt4},
    {"ext4_of_odd_groups", 600, "mke2fs -q -F -t ext4 -b 4096 -g 4104 -d % @", kExt4},
    {"ext3_of_small_groups", 300, "mke2fs -q -F -t ext3 -b 1024 -g 1000 -d % @", kExt4},
    {"ext4_with_a_short_last_group", 600, "mke2fs -q -F -t ext4 -d % @ 131100", kExt4},
    {"bigalloc_of_16k", 600, "mke2fs -q -F -t ext4 -O bigalloc -C 16384 -d % @", kExt4},
    {"bigalloc_of_64k_over_1k_blocks", 600,
     "mke2fs -q -F -t ext4 -O bigalloc -b 1024 -C 65536 -d % @", kExt4},
    {"bigalloc_that_ends_within_a_cluster", 600,
     "mke2fs -q -F -t ext4 -O bigalloc -b 4096 -C 65536 -d % @ 150003", kExt4},
    {"meta_bg", 600, "mke2fs -q -F -t ext4 -O meta_bg,^resize_inode -b 1024 -d % @", kExt4},
    {"meta_bg_of_4k_blocks", 9000, "mke2fs -q -F -t ext4 -O meta_bg,^resize_inode -d % @", kExt4},
    {"ext2_meta_bg", 300, "mke2fs -q -F -t ext2 -O meta_bg,^resize_inode -b 1024 -d % @", kExt4},
    {"sparse_super2", 600, "mke2fs -q -F -t ext4 -O sparse_super2 -b 1024 -d % @", kExt4},
    {"ext4_nearly_full", 56, "mke2fs -q -F -t ext4 -b 1024 -m 0 -J size=4 -d % @", kExt4},
    {"ext4_aged", 200,
     "mke2fs -q -F -t ext4 -b 1024 -d % @ && "
     "for n in 3 5 7 11 13 17 19 23 29 100 101 102 150; do echo rm f$n; done | debugfs -w -f - @",
     kExt4},
    {"ext4_grown", 400, "mke2fs -q -F -t ext4 -b 1024 -d % @ 100000 && resize2fs @ 390000", kExt4},
};

// More blocks than 32 bits count: in groups of 8 GiB, so that there are few of them. The copy of
// the superblock in group 625 lies behind the first 2^32 blocks.
TEST(ExtImagesOfManyTerabytes, NoUsedBlockIsCalledFree) {
  const RealImage image(u64{5} << 40, "mke2fs -q -F -t ext4 -O bigalloc -b 1024 -C 1048576 -d % @");
  const Truth truth = image.ext_truth();
  ASSERT_GT(truth.blocks, u64{1} << 32);
  const Comparison found = compare_with_truth(image, truth, 1 << 20);
  EXPECT_EQ(found.rc, 0) << found.log;
  EXPECT_EQ(found.used_called_free, 0u);
  EXPECT_EQ(found.free_called_used, 0u);
  EXPECT_TRUE(std::any_of(truth.free.begin(), truth.free.end(),
                          [](const Truth::Range& range) { return range.first > u64{1} << 32; }));
}

INSTANTIATE_TEST_SUITE_P(Made, ExtImages, ::testing::ValuesIn(kMade),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace snbf::sim
