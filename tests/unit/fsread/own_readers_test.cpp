// The readers of ext4 and of XFS 5 over real images with one thing changed.
#include "fsread/blkbmp.h"
#include "fsread/crc32c.h"
#include "fsread/ext4_layout.h"
#include "fsread/ext4_reader.h"
#include "fsread/xfs5_reader.h"
#include "real_image.h"

namespace snbf::sim {
namespace {

// An image with changes of its own, on a device.
class Changed {
 public:
  explicit Changed(const RealImage& image) : image_(image), pages_(image.pages()) {}

  u8 byte(u64 at) { return page(at)[at % 4096]; }
  Changed& set(u64 at, u64 value, int width = 1) {
    for (int n = 0; n < width; ++n)
      page(at + static_cast<u64>(n))[(at + static_cast<u64>(n)) % 4096] =
          static_cast<u8>(value >> n * 8);
    return *this;
  }
  Changed& set_be(u64 at, u64 value, int width) {
    for (int n = 0; n < width; ++n) set(at + static_cast<u64>(n), value >> (width - 1 - n) * 8);
    return *this;
  }
  u32 be32(u64 at) {
    u32 value = 0;
    for (u64 n = 0; n < 4; ++n) value = value << 8 | byte(at + n);
    return value;
  }
  // The checksum of the structure at `at`, as if it had been written like this.
  Changed& seal(u64 at, u32 bytes, u32 checksum_at) {
    set(at + checksum_at, 0, 4);
    Bytes data;
    for (u32 n = 0; n < bytes; ++n) data.push_back(byte(at + n));
    return set(at + checksum_at, static_cast<u32>(~crc32c(~0u, data.data(), bytes)), 4);
  }
  // `fn` runs as a task over the device that holds it.
  void with_device(const std::function<void(Sim&, OpenDevice&)>& fn, u32 block_bytes = 512) const {
    run_sim_body(1, [&](Sim& sim) {
      LoggedParts parts(2);
      OpenDevice disk(sim, {.name = "sda1", .bytes = image_.bytes(), .block_bytes = block_bytes});
      for (const auto& [at, page] : pages_) disk.device->poke(at / 512, page);
      fn(sim, disk);
    });
  }

 private:
  Bytes& page(u64 at) {
    Bytes& bytes = pages_[at / 4096 * 4096];
    bytes.resize(4096);
    return bytes;
  }

  const RealImage& image_;
  std::map<u64, Bytes> pages_;
};

constexpr u32 kBlock = 1024;
constexpr u64 kSuper = 1024;

class Ext4 : public ::testing::Test {
 protected:
  // Groups of 8192 blocks; the inode tables of all stand in the first one.
  static const RealImage& image() {
    static const RealImage made(60 << 20, "mke2fs -q -F -t ext4 -b 1024 -J size=1 @");
    return made;
  }
  static u64 bitmap_of_group_0() {
    Changed changed(image());
    u64 block = 0;
    for (u64 n = 0; n < 4; ++n) block |= u64{changed.byte(2 * kBlock + n)} << n * 8;
    return block * kBlock;
  }
  static std::set<u64> free_blocks(plat_bdev* bdev, u32 count) {
    Ext4Reader* reader = ext4_reader_init(bdev, nullptr);
    EXPECT_NE(reader, nullptr);
    Bytes bits((count + 7) / 8);
    EXPECT_EQ(ext4_reader_read(reader, 0, kBlock, bits.data(), count), 0);
    ext4_reader_destroy(reader);
    for (u8& byte : bits) byte = static_cast<u8>(~byte);
    return set_bits_of(bits, count);
  }
  static std::set<u64> set_bits_of(const Bytes& bits, u64 count) {
    std::set<u64> all;
    for (u64 bit = 0; bit < count; ++bit) {
      if (bit_of(bits.data(), bit)) all.insert(bit);
    }
    return all;
  }
};

TEST_F(Ext4, ABitmapThatDisagreesWithItsCountSaysNothing) {
  const u64 bitmap = bitmap_of_group_0();
  Changed changed(image());
  ASSERT_EQ(changed.byte(bitmap), 0xFF);
  changed.set(bitmap, 0);
  changed.with_device([](Sim& sim, OpenDevice& disk) {
    EXPECT_EQ(free_blocks(disk.bdev, 8193), std::set<u64>{});
    EXPECT_EQ(sim.log().count("ext4_reader_read(): Number of free blocks (", 3), 1);
    EXPECT_TRUE(sim.log().contains(") in block group 0 is inconsistent with the bitmap ("));
  });
}

TEST_F(Ext4, ABitmapThatDisagreesWithItsChecksumSaysNothing) {
  const u64 bitmap = bitmap_of_group_0();
  Changed changed(image());
  ASSERT_EQ(changed.byte(bitmap), 0xFF);
  ASSERT_EQ(changed.byte(bitmap + 1023), 0);
  changed.set(bitmap, 0).set(bitmap + 1023, 0xFF);
  changed.with_device([](Sim& sim, OpenDevice& disk) {
    EXPECT_EQ(free_blocks(disk.bdev, 8193), std::set<u64>{});
    EXPECT_EQ(sim.log().count("ext4_reader_read(): Data Bitmap of Block Group 0 is corrupt.", 3),
              1);
  });
}

TEST_F(Ext4, AsItIsSomeOfItIsFree) {
  Changed(image()).with_device([](Sim& sim, OpenDevice& disk) {
    EXPECT_GT(free_blocks(disk.bdev, 8193).size(), 1000u);
    EXPECT_FALSE(sim.log().has_errors());
  });
}

TEST_F(Ext4, DescriptorsAndSuperblockAreChecked) {
  auto refuses = [](Changed changed, const char* line) {
    changed.with_device([&](Sim& sim, OpenDevice& disk) {
      EXPECT_EQ(ext4_reader_init(disk.bdev, nullptr), nullptr);
      EXPECT_EQ(sim.log().count(line, 3), 1) << sim.log().dump();
    });
  };
  refuses(Changed(image()).set(2 * kBlock + 64 * 3 + 12, 1, 2),
          "ext4_reader_init(): Descriptor of Block Group 3 of hdd(8, ");
  refuses(Changed(image()).set(kSuper + 120, 'x'), "ext4_reader_init(): Superblock of hdd(8, ");
  const RealImage old(60 << 20,
                      "mke2fs -q -F -t ext4 -b 1024 -J size=1 -O ^metadata_csum,uninit_bg @");
  refuses(Changed(old).set(2 * kBlock + 64 * 3 + 12, 1, 2),
          "ext4_reader_init(): Descriptor of Block Group 3 of hdd(8, ");
}

TEST_F(Ext4, RefusesWhatCannotBe) {
  const RealImage plain(60 << 20,
                        "mke2fs -q -F -t ext4 -b 1024 -J size=1 -O ^metadata_csum,^uninit_bg @");
  struct Field {
    u64 at;
    u64 value;
    int width;
  };
  for (const Field& field :
       {Field{4, 0, 4}, Field{4, 61441, 4}, Field{4, 0xFFFFFFFF, 4}, Field{336, 1, 4},
        Field{20, 2, 4}, Field{24, 7, 4}, Field{24, 0xFFFFFFFF, 4}, Field{32, 0, 4},
        Field{32, 8193, 4}, Field{32, 16384, 4}, Field{32, 0xFFFFFFF8, 4}, Field{40, 0, 4},
        Field{40, 0xFFFFFFFF, 4}, Field{88, 0, 2}, Field{88, 129, 2}, Field{254, 32, 2},
        Field{254, 65, 2}, Field{254, 2048, 2}}) {
    Changed(plain)
        .set(kSuper + field.at, field.value, field.width)
        .with_device([&](Sim& sim, OpenDevice& disk) {
          EXPECT_EQ(ext4_reader_init(disk.bdev, nullptr), nullptr) << field.at;
          EXPECT_EQ(sim.log().count("ext4_reader_init(): Superblock of hdd(8, ", 3), 1)
              << field.at << ": " << field.value;
        });
  }
  // Descriptors of small groups that would fill a good part of the device.
  Changed(plain)
      .set(kSuper + 32, 8, 4)
      .set(kSuper + 36, 8, 4)
      .set(kSuper + 254, 1024, 2)
      .with_device([](Sim& sim, OpenDevice& disk) {
        EXPECT_EQ(ext4_reader_init(disk.bdev, nullptr), nullptr);
        EXPECT_EQ(sim.log().count("ext4_reader_init(): Superblock of hdd(8, ", 3), 1);
      });
  // What is no ext at all is no error.
  Changed(plain).set(kSuper + 56, 0, 2).with_device([](Sim& sim, OpenDevice& disk) {
    EXPECT_EQ(ext4_reader_init(disk.bdev, nullptr), nullptr);
    EXPECT_FALSE(sim.log().has_errors());
  });
  // Where a bitmap lies, when it cannot lie there.
  Changed(plain).set(2 * kBlock, 0xFFFFFFFF, 4).with_device([](Sim& sim, OpenDevice& disk) {
    Ext4Reader* reader = ext4_reader_init(disk.bdev, nullptr);
    ASSERT_NE(reader, nullptr);
    u8 bits = 0;
    EXPECT_EQ(ext4_reader_read(reader, 0, kBlock, &bits, 8), -EINVAL);
    EXPECT_TRUE(sim.log().contains(
        "ext4_reader_read(): Data Bitmap of Block Group 0 lies behind the file system"));
    ext4_reader_destroy(reader);
  });
}

TEST_F(Ext4, EveryReadAndAllocationMayFail) {
  Changed(image()).with_device([](Sim& sim, OpenDevice& disk) {
    Ext4Reader* reader = ext4_reader_init(disk.bdev, nullptr);
    ASSERT_NE(reader, nullptr);
    u8 bits = 0;
    EXPECT_EQ(ext4_reader_read(nullptr, 0, kBlock, &bits, 8), -EINVAL);
    EXPECT_EQ(ext4_reader_read(reader, 0, 512, &bits, 8), -EINVAL);
    EXPECT_EQ(ext4_reader_read(reader, 0, 3000, &bits, 8), -EINVAL);
    disk.device->fail_range(bitmap_of_group_0() / 512, 2, Op::Read, -EIO);
    EXPECT_EQ(ext4_reader_read(reader, 0, kBlock, &bits, 8), -EIO);
    EXPECT_EQ(sim.log().count(
                  "ext4_reader_read(): Failed to read Data Bitmap of Block Group 0: rc=-5", 3),
              1);
    disk.device->clear_failures();
    EXPECT_EQ(ext4_reader_destroy(reader), 0);
    EXPECT_EQ(ext4_reader_destroy(nullptr), 0);
    disk.device->fail_range(4, 2, Op::Read, -EIO);
    EXPECT_EQ(ext4_reader_init(disk.bdev, nullptr), nullptr);
    EXPECT_TRUE(sim.log().contains("ext4_reader_init(): Failed to read "));
    disk.device->clear_failures();
    int nth = 1;
    for (; fails_at(sim, Fault::AnyAllocation, nth,
                    [&] {
                      Ext4Reader* made = ext4_reader_init(disk.bdev, nullptr);
                      EXPECT_EQ(made == nullptr, sim.fault_reached(Fault::AnyAllocation));
                      ext4_reader_destroy(made);
                    });
         ++nth) {
    }
    EXPECT_GE(nth, 8);
  });
}

class Xfs5 : public ::testing::Test {
 protected:
  static const RealImage& image() {
    static const RealImage made(320 << 20, "mkfs.xfs -q -f @");
    return made;
  }
  static void refuses(const Changed& changed, const std::string& line) {
    changed.with_device([&](Sim& sim, OpenDevice& disk) {
      Xfs5Reader* reader = xfs5_reader_init(disk.bdev, nullptr);
      if (reader != nullptr) {
        Bytes bits(80000 / 8);
        EXPECT_EQ(xfs5_reader_read(reader, 0, 4096, bits.data(), 80000), -EINVAL);
      }
      EXPECT_EQ(sim.log().count(line, 3), 1) << sim.log().dump();
      xfs5_reader_destroy(reader);
    });
  }
};

TEST_F(Xfs5, WhatItReadsIsChecked) {
  refuses(Changed(image()).set(108, 'x'), "xfs5_reader_init(): Superblock of hdd(8, ");
  refuses(Changed(image()).set(512 + 55, 1), ") is corrupt: its checksum is wrong");
  refuses(Changed(image()).set(512, 'Y'), ") is corrupt: its magic number is wrong");
  // The root of the first tree is block 1 of its group.
  refuses(Changed(image()).set(4096 + 60, 7), "in the free space tree is corrupt: its checksum is");
  refuses(Changed(image()).set(4096, 'B'), "in the free space tree is corrupt: its magic number");
}

// Whole, but of another place: left there by an earlier file system, or written to the wrong one.
TEST_F(Xfs5, WhatBelongsElsewhereIsFoundOut) {
  auto agf = [](u64 at, u8 value) {
    return Changed(image()).set(512 + at, value).seal(512, 512, 216);
  };
  refuses(agf(11, 1), ") is corrupt: its number is wrong");
  refuses(agf(64, 0x5A), ") is corrupt: its uuid is wrong");
  auto root = [](u64 at, u8 value) {
    return Changed(image()).set(4096 + at, value).seal(4096, 4096, 52);
  };
  refuses(root(23, 0x5A), "in the free space tree is corrupt: its place is wrong");
  refuses(root(51, 1), "in the free space tree is corrupt: its owner is wrong");
  refuses(root(32, 0x5A), "in the free space tree is corrupt: its uuid is wrong");
}

TEST_F(Xfs5, FeaturesThatNobodyKnowsAreNobodys) {
  // A repair that is needed, and two bits of tomorrow.
  for (u64 at : {219u, 216u, 212u}) {
    Changed changed(image());
    changed.set(at, at == 219 ? 0x10 | changed.byte(at) : 0x80);
    changed.with_device([](Sim& sim, OpenDevice& disk) {
      EXPECT_EQ(xfs5_reader_claim(disk.bdev), Claim::Nobodys);
      EXPECT_EQ(sim.log().count("xfs5_reader_claim(): XFS on hdd(8, ", 6), 1);
      EXPECT_TRUE(sim.log().contains(": no reader claims it"));
      EXPECT_EQ(xfs5_reader_init(disk.bdev, nullptr), nullptr);
    });
  }
}

// Version 4 with large sectors has no checksums: the structure itself must hold.
TEST_F(Xfs5, TreesWithoutChecksumsMustBeInOrder) {
  const RealImage old(320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @");
  Changed plain(old);
  const u64 root_at = 4096 + 16;
  const u64 root = u64{plain.byte(root_at + 3)} * 4096;
  ASSERT_EQ(plain.byte(root), 'A');
  auto with = [&](u64 at, u8 value) { return Changed(old).set(root + at, value); };
  refuses(with(7, 0xFF).set(root + 6, 0xFF), "is corrupt: its number of records is wrong");
  refuses(with(5, 1), "is corrupt: its level is wrong");
  refuses(with(16 + 4, 0x7F), "is corrupt: the order of its records is wrong");
  refuses(Changed(old).set(root_at, 0x7F), "is corrupt: the root of its tree is wrong");
  refuses(Changed(old).set(4096 + 28 + 3, 0), "is corrupt: the height of its tree is wrong");
  // A leaf that follows itself, with one record that is short.
  Changed ring(old);
  for (u64 at = 12; at < 15; ++at) ring.set(root + at, 0);
  ring.set(root + 15, plain.byte(root_at + 3)).set(root + 6, 0).set(root + 7, 1);
  ring.set(root + 20, 0).set(root + 21, 0).set(root + 22, 0).set(root + 23, 4);
  refuses(ring, "is corrupt: the order of its records is wrong");
}

TEST_F(Xfs5, ASuperblockThatCannotBeIsRefused) {
  const RealImage old(320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @");
  struct Field {
    u64 at;
    u64 value;
    int width;
  };
  for (const Field& field :
       {Field{4, 0, 4}, Field{4, 3000, 4}, Field{4, 256, 4}, Field{4, 131072, 4}, Field{102, 0, 2},
        Field{102, 3000, 2}, Field{102, 256, 2}, Field{84, 0, 4}, Field{84, 1, 4}, Field{88, 0, 4},
        Field{88, 0xFFFFFFFF, 4}, Field{8, 1u << 31, 4}}) {
    Changed(old)
        .set_be(field.at, field.value, field.width)
        .with_device([&](Sim& sim, OpenDevice& disk) {
          EXPECT_EQ(xfs5_reader_init(disk.bdev, nullptr), nullptr) << field.at;
          EXPECT_EQ(sim.log().count("xfs5_reader_init(): Superblock of hdd(8, ", 3), 1)
              << field.at << ": " << field.value;
        });
  }
}

// The first group's tree of free space, grown by a level: its only leaf, cut within its last record,
// below a root. The leaves stand in blocks that are free, and so nobody's.
struct GrownTree : Changed {
  static constexpr u64 kAgf = 4096;
  static constexpr u32 kHeader = 16;
  static constexpr u32 kNodeRecords = (4096 - kHeader) / 12;

  explicit GrownTree(const RealImage& image) : Changed(image) {
    root = u64{be32(kAgf + 16)} * 4096;
    const u64 last = root + kHeader + 8 * (u64{byte(root + 7)} - 1);
    first = be32(last);
    const u32 count = be32(last + 4);
    EXPECT_GT(count, 1000u);
    half = count / 2;
    left = u64{first + half - 1} * 4096;
    right = u64{first + half} * 4096;
    for (const u64 leaf : {left, right}) {
      for (u64 n = 0; n < 4096; ++n) set(leaf + n, byte(root + n));
    }
    set_be(left + 12, right / 4096, 4).set_be(left + (last - root) + 4, half, 4);
    set_be(right + 6, 1, 2);
    set_be(right + kHeader, first + half, 4).set_be(right + kHeader + 4, count - half, 4);
    set_be(root + 4, 1, 2).set_be(root + 6, 2, 2).set_be(root + kHeader + 8, first + half, 4);
    child(0, left / 4096).child(1, right / 4096);
    set_be(kAgf + 28, 2, 4);
  }
  GrownTree& child(u32 record, u64 block) {
    set_be(root + kHeader + kNodeRecords * 8 + record * 4, block, 4);
    return *this;
  }
  static Bytes read(const Changed& changed, u64 from) {
    Bytes bits(80000 / 8);
    changed.with_device([&](Sim& sim, OpenDevice& disk) {
      Xfs5Reader* reader = xfs5_reader_init(disk.bdev, nullptr);
      ASSERT_NE(reader, nullptr);
      EXPECT_EQ(xfs5_reader_read(reader, from, 4096, bits.data(), static_cast<u32>(80000 - from)),
                0);
      EXPECT_FALSE(sim.log().has_errors()) << sim.log().dump();
      xfs5_reader_destroy(reader);
    });
    return bits;
  }

  u64 root, left, right;  // bytes
  u32 first, half;        // blocks of the last record
};

TEST_F(Xfs5, ATreeOfTwoLevelsSaysTheSameAsItsRecordsInOne) {
  const RealImage old(320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @");
  const GrownTree grown(old);
  for (const u64 from : {u64{0}, u64{grown.first} + 3, u64{grown.first} + grown.half + 3}) {
    EXPECT_EQ(GrownTree::read(grown, from), GrownTree::read(Changed(old), from)) << from;
  }
  refuses(GrownTree(old).set_be(grown.root + 6, 0, 2),
          "is corrupt: its number of records is wrong");
  refuses(GrownTree(old).set_be(grown.right + 6, 0, 2),
          "is corrupt: its number of records is wrong");
  refuses(GrownTree(old).child(0, 0x7FFFFFFF), "is corrupt: its place is wrong");
  refuses(GrownTree(old).set_be(grown.left + 12, 0x7FFFFFFF, 4), "is corrupt: its place is wrong");
}

TEST_F(Xfs5, WhatFollowsTheLastFreeExtentIsUsed) {
  const RealImage old(320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @");
  Changed shorter(old);
  const u64 root = u64{shorter.be32(GrownTree::kAgf + 16)} * 4096;
  const u64 last = root + GrownTree::kHeader + 8 * (u64{shorter.byte(root + 7)} - 1);
  const u32 end = shorter.be32(last) + shorter.be32(last + 4);
  ASSERT_EQ(end, shorter.be32(84)) << "the group is made so that its end is free";
  shorter.set_be(last + 4, shorter.be32(last + 4) - 100, 4);
  const Bytes made = GrownTree::read(Changed(old), 0);
  const Bytes bits = GrownTree::read(shorter, 0);
  auto is_used = [](const Bytes& map, u32 block) { return (map[block / 8] >> block % 8 & 1) != 0; };
  for (u32 block = end - 200; block < end; ++block) {
    EXPECT_FALSE(is_used(made, block)) << block;
    EXPECT_EQ(is_used(bits, block), block >= end - 100) << block;
  }
}

// Each reader that is asked before reads what it looks for in the device's own blocks.
TEST_F(Xfs5, IsFoundOnADeviceOfLargeBlocks) {
  const RealImage large(320 << 20, "mkfs.xfs -q -f -s size=4096 @");
  Changed(large).with_device(
      [](Sim& sim, OpenDevice& disk) {
        snbf_blkbmp map;
        snbf_blkbmp_init(&map);
        EXPECT_EQ(snbf_blkbmp_read(&map, disk.bdev, 4096), 0);
        EXPECT_TRUE(sim.log().contains("xfs5_reader_init(): Detected XFS version 5"));
        EXPECT_FALSE(sim.log().has_errors()) << sim.log().dump();
        snbf_blkbmp_destroy(&map);
      },
      4096);
}

TEST_F(Xfs5, EveryReadAndAllocationMayFail) {
  Changed(image()).with_device([](Sim& sim, OpenDevice& disk) {
    Xfs5Reader* reader = xfs5_reader_init(disk.bdev, nullptr);
    ASSERT_NE(reader, nullptr);
    u8 bits = 0;
    EXPECT_EQ(xfs5_reader_read(nullptr, 0, 4096, &bits, 8), -EINVAL);
    EXPECT_EQ(xfs5_reader_read(reader, 0, 2048, &bits, 8), -EINVAL);
    disk.device->fail_range(8, 8, Op::Read, -EIO);
    EXPECT_EQ(xfs5_reader_read(reader, 0, 4096, &bits, 8), -EIO);
    EXPECT_EQ(sim.log().count("xfs5_reader_read(): Failed to read AGF node from block 1: rc=-5", 3),
              1);
    disk.device->clear_failures();
    EXPECT_EQ(xfs5_reader_destroy(reader), 0);
    EXPECT_EQ(xfs5_reader_destroy(nullptr), 0);
    int nth = 1;
    for (; fails_at(sim, Fault::AnyAllocation, nth,
                    [&] {
                      Xfs5Reader* made = xfs5_reader_init(disk.bdev, nullptr);
                      EXPECT_EQ(made == nullptr, sim.fault_reached(Fault::AnyAllocation));
                      xfs5_reader_destroy(made);
                    });
         ++nth) {
    }
    EXPECT_GE(nth, 10);
    disk.device->fail_range(0, 1, Op::Read, -EIO);
    EXPECT_EQ(xfs5_reader_claim(disk.bdev), Claim::Nobodys);
  });
}

}  // namespace
}  // namespace snbf::sim
