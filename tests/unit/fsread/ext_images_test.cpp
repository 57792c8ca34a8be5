// Maps of file systems that mke2fs and debugfs made, beside what dumpe2fs says.
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

constexpr const char* kDocumented = "ext2_reader_init(): Detected ext2/ext3 FS";

TEST_P(ExtImages, NoUsedBlockIsCalledFree) {
  const Made& made = GetParam();
  const RealImage image(made.megabytes << 20, made.tool);
  const Truth truth = image.ext_truth();
  ASSERT_GT(truth.block_size, 0u);
  for (u32 chunk_size : {truth.block_size, 4096u, 65536u, 1u << 20}) {
    if (chunk_size < truth.block_size) continue;
    const Comparison found = compare_with_truth(image, truth, chunk_size);
    EXPECT_EQ(found.rc, 0) << found.log;
    EXPECT_NE(found.log.find(made.reader), std::string::npos) << found.log;
    EXPECT_EQ(found.used_called_free, 0u);
    if (chunk_size <= 4096) {
      EXPECT_GT(found.free_chunks, 0u);
    }
    // Each block, or it is padding in front of the first group.
    EXPECT_LE(found.free_called_used, chunk_size == 1024 ? 1u : 0u) << "of " << found.free_chunks;
    EXPECT_EQ(found.log.find("inconsistent"), std::string::npos) << found.log;
  }
}

constexpr Made kMade[] = {
    {"ext2_of_1k_blocks", 40, "mke2fs -q -F -t ext2 -b 1024 -d % @", kDocumented},
    {"ext2_of_2k_blocks", 40, "mke2fs -q -F -t ext2 -b 2048 -d % @", kDocumented},
    {"ext2_of_4k_blocks", 300, "mke2fs -q -F -t ext2 -b 4096 -d % @", kDocumented},
    {"ext3", 300, "mke2fs -q -F -t ext3 -d % @", kDocumented},
    {"ext3_nearly_full", 48, "mke2fs -q -F -t ext3 -b 1024 -m 0 -J size=4 -d % @", kDocumented},
    {"ext3_with_a_short_last_group", 139, "mke2fs -q -F -t ext3 -b 4096 -d % @ 35000", kDocumented},
    {"ext3_aged", 100,
     "mke2fs -q -F -t ext3 -b 1024 -d % @ && "
     "for n in 3 5 7 11 13 17 19 23 29 100 101 102 150; do echo rm f$n; done | debugfs -w -f - @",
     kDocumented},
    {"ext2_revision_0", 40, "mke2fs -q -F -r 0 -d % @", kDocumented},
    {"ext4_without_64_bits", 300, "mke2fs -q -F -t ext4 -O ^64bit,^metadata_csum,^uninit_bg -d % @",
     kDocumented},
};

INSTANTIATE_TEST_SUITE_P(Made, ExtImages, ::testing::ValuesIn(kMade),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace snbf::sim
