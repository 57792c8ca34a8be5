#include "fsread/extfs.h"

#include "byte_image.h"
#include "fsread/blkbmp.h"

namespace snbf::sim {
namespace {

using enum ExtVerdict::Reader;

constexpr ExtSuper kPlain = {.magic = 0xEF53,
                             .blocks_count = 100000,
                             .first_data_block = 0,
                             .log_block_size = 2,
                             .log_cluster_size = 2,
                             .blocks_per_group = 32768,
                             .clusters_per_group = 32768,
                             .inodes_per_group = 8192,
                             .inode_size = 256,
                             .compat = 0x38,
                             .incompat = 0x2,
                             .ro_compat = 0x3,
                             .reserved_gdt_blocks = 0,
                             .desc_size = 32,
                             .first_meta_bg = 0,
                             .backup_groups = {},
                             .checksum_seed = 0};

template <typename F>
ExtVerdict judge_with(F change) {
  ExtSuper super = kPlain;
  change(super);
  return judge_ext(super);
}

// Of the ext family's layouts, only one may reach the reader of ext2 and ext3.
TEST(ExtVerdict, WhatTheRulesOfExt2FitIsTheirs) {
  EXPECT_EQ(judge_ext(kPlain).reader, Ext2);
  // Extents, flexible groups and the like leave descriptors and bitmaps as they are.
  EXPECT_EQ(judge_with([](ExtSuper& s) { s.incompat = 0x3F342; }).reader, Ext2);
  EXPECT_EQ(judge_with([](ExtSuper& s) { s.ro_compat = 0x1F16F; }).reader, Ext2);
  EXPECT_EQ(judge_with([](ExtSuper& s) {
              s.log_block_size = 0;
              s.blocks_per_group = 8192;
            }).reader,
            Ext2);
}

TEST(ExtVerdict, WhatTheyWouldMisreadIsNot) {
  auto expect_ext4 = [](const ExtVerdict& verdict, const std::string& why) {
    EXPECT_EQ(verdict.reader, Ext4);
    EXPECT_EQ(verdict.why, why);
  };
  expect_ext4(judge_with([](ExtSuper& s) { s.incompat = 0x82; }), "64-bit group descriptors");
  expect_ext4(judge_with([](ExtSuper& s) { s.ro_compat |= 0x200; }), "bitmaps of clusters");
  expect_ext4(judge_with([](ExtSuper& s) { s.incompat |= 0x10; }), "meta block groups");
  expect_ext4(judge_with([](ExtSuper& s) { s.ro_compat |= 0x10; }), "checksums of its groups");
  expect_ext4(judge_with([](ExtSuper& s) { s.ro_compat |= 0x400; }), "checksums of its groups");
  expect_ext4(judge_with([](ExtSuper& s) { s.log_block_size = 3; }), "blocks larger than a page");
  for (u32 blocks : {0u, 8u, 16384u, 32760u, 32776u, 65536u}) {
    expect_ext4(judge_with([blocks](ExtSuper& s) { s.blocks_per_group = blocks; }),
                "groups smaller than their bitmap blocks");
  }
}

TEST(ExtVerdict, WhatNobodyKnowsIsNobodys) {
  auto expect_nobody = [](const ExtVerdict& verdict, const std::string& why) {
    EXPECT_EQ(verdict.reader, Nobody);
    EXPECT_EQ(verdict.why, why);
  };
  expect_nobody(judge_with([](ExtSuper& s) { s.incompat |= 0x4; }),
                "a journal that is not replayed");
  for (u32 bit : {0x1u, 0x8u, 0x20u, 0x800u, 0x40000u, 0x80000000u}) {
    expect_nobody(judge_with([bit](ExtSuper& s) { s.incompat |= bit | 0x80; }),
                  "an unknown incompatible feature");
  }
  for (u32 bit : {0x80u, 0x800u, 0x20000u, 0x80000000u}) {
    expect_nobody(judge_with([bit](ExtSuper& s) { s.ro_compat |= bit; }),
                  "an unknown read-only feature");
  }
}

SIM_TEST(ExtClaim, WhatIsNobodysIsReadByNobody) {
  LoggedParts parts;
  for (u32 incompat : {0x4u, 0x8u, 0x20u, 0x80000000u}) {
    sim.log().clear();
    const Ext2Image layout = {.incompat = incompat};
    ImageOnDevice image(sim, layout.bytes(), layout.device_bytes(),
                        "sd" + std::to_string(incompat));
    snbf_blkbmp map;
    snbf_blkbmp_init(&map);
    EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), -EINVAL);
    EXPECT_EQ(sim.log().count(": no reader claims it", 6), 1);
    EXPECT_EQ(sim.log().count("Datablocks will be disabled", 6), 1);
    EXPECT_FALSE(sim.log().contains("Detected"));
    EXPECT_EQ(snbf_blkbmp_is_used(&map, 5000), 1);
    snbf_blkbmp_destroy(&map);
  }
}

// Where nobody can tell, the reader of ext2 and ext3 is not asked either.
SIM_TEST(ExtClaim, NeedsTheSuperblock) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  sim.fail_nth(Fault::DeviceRead, 1);
  EXPECT_EQ(ext4_reader_claim(image.bdev()), Claim::Nobodys);
  EXPECT_EQ(sim.log().count("ext4_reader_claim(): Failed to read Super Block of hdd(8, ", 3), 1);
  EXPECT_EQ(ext4_reader_claim(image.bdev()), Claim::NotMine);
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    const bool is_told = ext4_reader_claim(image.bdev()) == Claim::NotMine;
                    EXPECT_NE(is_told, sim.fault_reached(Fault::AnyAllocation));
                  });
       ++nth) {
  }
  EXPECT_GE(nth, 4);
}

// The superblock is less than such a device's block.
SIM_TEST(ExtClaim, ADeviceOfLargeBlocksIsRead) {
  LoggedParts parts;
  const Ext2Image layout = {
      .block_size = 4096, .blocks_count = 5000, .first_data_block = 0, .used = {1, 2, 3, 77}};
  OpenDevice disk(sim, {.name = "sda1", .bytes = layout.device_bytes(), .block_bytes = 4096});
  disk.device->poke(0, layout.bytes());
  EXPECT_EQ(ext4_reader_claim(disk.bdev), Claim::NotMine);
  snbf_blkbmp map;
  snbf_blkbmp_init(&map);
  EXPECT_EQ(snbf_blkbmp_read(&map, disk.bdev, 4096), 0);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 77), 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 78), 0);
  EXPECT_FALSE(sim.log().has_errors());
  snbf_blkbmp_destroy(&map);
}

// What an earlier file system has left on the disk is not asked about once a reader has been found.
SIM_TEST(ExtClaim, AnOldReiserfsBehindItDoesNotMatter) {
  LoggedParts parts;
  ImageOnDevice image(sim, Ext2Image{});
  Bytes stale(4096);
  put_le(stale, 44, 4096, 2);
  put_le(stale, 16, 0x801, 4);
  std::memcpy(stale.data() + 52, "ReIsEr2Fs", 9);
  image.disk.device->poke(128, stale);
  snbf_blkbmp map;
  snbf_blkbmp_init(&map);
  EXPECT_EQ(snbf_blkbmp_read(&map, image.bdev(), 1024), 0);
  snbf_blkbmp_destroy(&map);
}

}  // namespace
}  // namespace snbf::sim
