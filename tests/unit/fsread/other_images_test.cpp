// Maps of file systems that mkfs.xfs and mkfs.reiserfs made, beside what xfs_db and debugreiserfs
// say.
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
std::string name_of(const ::testing::TestParamInfo<Made>& info) { return info.param.name; }

void expect_safe(const Made& made, const RealImage& image, const Truth& truth) {
  ASSERT_GT(truth.block_size, 0u);
  EXPECT_EQ(self_test(image), 0);
  for (u32 chunk_size : {truth.block_size, 4096u, 65536u, 1u << 20}) {
    if (chunk_size < truth.block_size) continue;
    const Comparison found = compare_with_truth(image, truth, chunk_size);
    EXPECT_EQ(found.rc, 0) << found.log;
    EXPECT_NE(found.log.find(made.reader), std::string::npos) << found.log;
    EXPECT_EQ(found.used_called_free, 0u);
    EXPECT_GT(found.free_chunks, 0u);
    EXPECT_LT(found.free_called_used, found.free_chunks / 100 + 80);
    printf("%s, chunks of %u: %llu free, %llu of them called used\n", made.name, chunk_size,
           static_cast<unsigned long long>(found.free_chunks),
           static_cast<unsigned long long>(found.free_called_used));
  }
}

class XfsImages : public ::testing::TestWithParam<Made> {};

TEST_P(XfsImages, NoUsedBlockIsCalledFree) {
  const RealImage image(GetParam().megabytes << 20, GetParam().tool);
  expect_safe(GetParam(), image, image.xfs_truth());
}

constexpr const char* kVersion4 = "xfs_reader_init(): Detected XFS";
constexpr const char* kVersion5 = "xfs5_reader_init(): Detected XFS version ";
constexpr Made kXfs[] = {
    {"version_4", 320, "mkfs.xfs -q -f -m crc=0,finobt=0,rmapbt=0,reflink=0 @", kVersion4},
    {"version_4_of_512_byte_blocks", 320, "mkfs.xfs -q -f -m crc=0 -b size=512 @", kVersion4},
    {"version_4_of_many_groups", 3000, "mkfs.xfs -q -f -m crc=0 -d agcount=37 @", kVersion4},
    {"version_4_of_4k_sectors", 320, "mkfs.xfs -q -f -m crc=0 -s size=4096 @", kVersion5},
    {"version_4_of_16k_blocks", 320, "mkfs.xfs -q -f -m crc=0 -b size=16384 @", kVersion5},
    {"version_5", 320, "mkfs.xfs -q -f @", kVersion5},
    {"version_5_with_files", 320, "mkfs.xfs -q -f -p %.proto @", kVersion5},
    {"version_5_of_everything", 320,
     "mkfs.xfs -q -f -m finobt=1,rmapbt=1,reflink=1,inobtcount=1,bigtime=1 -i nrext64=1 @",
     kVersion5},
    {"version_5_of_nothing", 320,
     "mkfs.xfs -q -f -m finobt=0,rmapbt=0,reflink=0,inobtcount=0,bigtime=0 -i sparse=0 @",
     kVersion5},
    {"version_5_of_1k_blocks", 320, "mkfs.xfs -q -f -b size=1024 @", kVersion5},
    {"version_5_of_64k_blocks", 500, "mkfs.xfs -q -f -b size=65536 @", kVersion5},
    {"version_5_of_4k_sectors", 320, "mkfs.xfs -q -f -s size=4096 @", kVersion5},
    {"version_5_of_many_groups", 8000, "mkfs.xfs -q -f -d agcount=101 @", kVersion5},
    {"version_5_with_another_uuid", 320,
     "mkfs.xfs -q -f @ && xfs_admin -U 11111111-2222-3333-4444-555555555555 @", kVersion5},
    {"version_5_that_ends_oddly", 320, "mkfs.xfs -q -f -d size=80001b @", kVersion5},
};
INSTANTIATE_TEST_SUITE_P(Made, XfsImages, ::testing::ValuesIn(kXfs), name_of);

class ReiserfsImages : public ::testing::TestWithParam<Made> {};

TEST_P(ReiserfsImages, NoUsedBlockIsCalledFree) {
  const RealImage image(GetParam().megabytes << 20, GetParam().tool);
  expect_safe(GetParam(), image, image.reiserfs_truth());
}

constexpr const char* kReiserfs = "reiserfs_reader_init(): Detected ReiserFS";
constexpr Made kReiser[] = {
    {"of_4k_blocks", 600, "mkfs.reiserfs -q -f @", kReiserfs},
    {"of_1k_blocks", 100, "mkfs.reiserfs -q -f -b 1024 @", kReiserfs},
    {"of_an_odd_size", 200, "mkfs.reiserfs -q -f @ 40003", kReiserfs},
};
INSTANTIATE_TEST_SUITE_P(Made, ReiserfsImages, ::testing::ValuesIn(kReiser), name_of);

}  // namespace
}  // namespace snbf::sim
