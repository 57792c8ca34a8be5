// Real images with bits turned over, and on devices that are too short. A map may be refused, or
// say less; it never hangs, reads outside, or, where the file system has checksums, calls free what
// is used.
#include <random>

#include "real_image.h"

namespace snbf::sim {
namespace {

struct Kind {
  const char* name;
  u64 megabytes;
  const char* tool;
  Truth (RealImage::*truth)() const;
  bool is_checked;  // by checksums, so that no damage goes unseen
  int trials = 500;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class Damage : public ::testing::TestWithParam<Kind> {};

TEST_P(Damage, TurnedBitsAreFoundOrHarmless) {
  const Kind& kind = GetParam();
  const RealImage image(kind.megabytes << 20, kind.tool);
  const Truth truth = (image.*kind.truth)();
  std::vector<u64> places;
  for (const auto& [at, page] : image.pages()) places.push_back(at);
  std::mt19937 random(1);
  int refused = 0;
  for (int trial = 0; trial < kind.trials; ++trial) {
    // Every other time among the first pages, where the headers are.
    const u64 among =
        trial % 2 == 0 ? std::min<u64>(places.size(), trial % 4 == 0 ? 1 : 6) : places.size();
    const u64 at = places[random() % among];
    Bytes page = image.pages().at(at);
    for (u32 n = random() % 6 + 1; n > 0; --n) {
      // Structures lie at the head of their sectors.
      const u64 byte = random() % 2 == 0 ? random() % page.size()
                                         : (random() % 8 * 512 + random() % 64) % page.size();
      page[byte] = static_cast<u8>(page[byte] ^ 1u << random() % 8);
    }
    const Comparison found = compare_with_truth(image, truth, 65536, 0, {{at, page}});
    refused += found.rc != 0 ? 1 : 0;
    if (kind.is_checked) {
      EXPECT_EQ(found.used_called_free, 0u) << "trial " << trial << " at " << at << "\n"
                                            << found.log;
    }
    if (found.rc != 0) {
      EXPECT_EQ(found.used_called_free, 0u);
      EXPECT_TRUE(found.log.find("ERROR: ") != std::string::npos ||
                  found.log.find("claims it") != std::string::npos ||
                  found.log.find("Cannot recognize") != std::string::npos)
          << found.log;
    }
  }
  EXPECT_GT(refused, 0);
}

TEST_P(Damage, AShortDeviceIsSafe) {
  const Kind& kind = GetParam();
  const RealImage image(kind.megabytes << 20, kind.tool);
  const Truth truth = (image.*kind.truth)();
  for (u64 bytes = 4096; bytes < image.bytes(); bytes = bytes * 3 / 4096 * 4096) {
    const Comparison found = compare_with_truth(image, truth, 65536, bytes);
    if (found.rc == 0) continue;
    EXPECT_EQ(found.used_called_free, 0u) << bytes;
  }
}

constexpr Kind kKinds[] = {
    {"ext2", 40, "mke2fs -q -F -t ext2 -b 1024 @", &RealImage::ext_truth, false},
    {"ext4", 60, "mke2fs -q -F -t ext4 -b 1024 -J size=1 @", &RealImage::ext_truth, true},
    {"ext4_without_checksums", 60,
     "mke2fs -q -F -t ext4 -b 1024 -J size=1 -O ^metadata_csum,^uninit_bg @", &RealImage::ext_truth,
     false},
    {"reiserfs", 200, "mkfs.reiserfs -q -f @", &RealImage::reiserfs_truth, false},
    {"xfs_4", 320, "mkfs.xfs -q -f -m crc=0 @", &RealImage::xfs_truth, false},
    {"xfs_4_of_4k_sectors", 320, "mkfs.xfs -q -f -m crc=0 -s size=4096 @", &RealImage::xfs_truth,
     false},
    {"xfs_5", 320, "mkfs.xfs -q -f @", &RealImage::xfs_truth, true},
};
INSTANTIATE_TEST_SUITE_P(Made, Damage, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace snbf::sim
