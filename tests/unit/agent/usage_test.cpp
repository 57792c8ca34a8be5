// SPDX-License-Identifier: GPL-2.0-only
// What of a device is in use: the driver's map, and the end of the file system.
#include "usage.h"

#include <endian.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "driver.h"
#include "failure.h"
#include "fs_end.h"

namespace snbf {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kExtent = 4096;

std::vector<uint64_t> numbers(const Extents& extents) {
  std::vector<uint64_t> found;
  for (uint64_t extent = 0; extent < extents.extent_cnt(); ++extent) {
    if (extents.test(extent)) found.push_back(extent);
  }
  return found;
}

Extents shape(uint64_t dev_size) { return {(dev_size - 1) / kExtent + 1, kExtent, dev_size}; }

TEST(UsedExtents, AreThoseOfTheirOwnChunks) {
  EXPECT_THAT(numbers(used_extents(shape(10 * kExtent), {0x81, 0x01}, kExtent, 10 * kExtent)),
              ElementsAre(0, 7, 8));
}

TEST(UsedExtents, ShareALargerChunk) {
  EXPECT_THAT(numbers(used_extents(shape(10 * kExtent), {0x04}, 4 * kExtent, 10 * kExtent)),
              ElementsAre(8, 9));
}

TEST(UsedExtents, ReachOverSmallerChunks) {
  EXPECT_THAT(numbers(used_extents(shape(3 * kExtent), {0x48, 0x00}, kExtent / 4, 3 * kExtent)),
              ElementsAre(0, 1));
}

TEST(UsedExtents, BehindTheFileSystemAreAllInUseWhateverTheMapSays) {
  const auto behind = [](uint64_t fs_end) {
    return numbers(used_extents(shape(4 * kExtent + 512), {0x01}, kExtent, fs_end));
  };
  EXPECT_THAT(behind(4 * kExtent + 512), ElementsAre(0));
  EXPECT_THAT(behind(4 * kExtent), ElementsAre(0, 4));
  EXPECT_THAT(behind(3 * kExtent), ElementsAre(0, 3, 4));
  EXPECT_THAT(behind(3 * kExtent - 1), ElementsAre(0, 2, 3, 4)) << "it begins inside an extent";
  EXPECT_THAT(behind(0), ElementsAre(0, 1, 2, 3, 4)) << "nobody knows where it ends";
}

class Device : public testing::Test {
 protected:
  Device() {
    char name[] = "/tmp/snbf-device-XXXXXX";
    path_ = name;
    path_ = ::mkdtemp(name);
    path_ += "/image";
    std::ofstream(path_).close();
    std::filesystem::resize_file(path_, kSize);
  }
  ~Device() override { std::filesystem::remove_all(std::filesystem::path(path_).parent_path()); }
  template <class Number>
  void put(uint64_t at, Number number) {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(at));
    file.write(reinterpret_cast<const char*>(&number), sizeof number);
  }
  void put_text(uint64_t at, const std::string& text) {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(at));
    file << text;
  }
  std::optional<uint64_t> end(const std::string& type) const {
    return file_system_end(path_, type);
  }
  void make_ext(uint32_t blocks) {
    put(1024 + 0x38, htole16(0xEF53));
    put(1024 + 0x4, htole32(blocks));
    put(1024 + 0x18, htole32(2));  // 4 KiB
  }
  static constexpr uint64_t kSize = 1 << 20;
  std::string path_;
};

TEST_F(Device, AnExtEndsBehindItsLastBlock) {
  EXPECT_EQ(end("ext4"), std::nullopt) << "no superblock";
  make_ext(200);
  EXPECT_EQ(end("ext2"), 200u * 4096);
  EXPECT_EQ(end("ext4"), 200u * 4096);
  put(1024 + 0x150, htole32(1));
  EXPECT_EQ(end("ext4"), 200u * 4096) << "without the 64-bit feature the field means nothing";
  put(1024 + 0x60, htole32(0x80));
  EXPECT_EQ(end("ext4"), std::nullopt) << "larger than the device";
  put(1024 + 0x150, htole32(0));
  EXPECT_EQ(end("ext4"), 200u * 4096);
  put(1024 + 0x18, htole32(60));
  EXPECT_EQ(end("ext4"), std::nullopt) << "no block is that large";
}

TEST_F(Device, AnXfsEndsBehindItsDataBlocks) {
  put_text(0, "XFSB");
  put(4, htobe32(4096));
  put(8, htobe64(250));
  EXPECT_EQ(end("xfs"), 250u * 4096);
  put(8, htobe64(257));
  EXPECT_EQ(end("xfs"), std::nullopt) << "larger than the device";
  put(8, htobe64(uint64_t{1} << 60));
  EXPECT_EQ(end("xfs"), std::nullopt);
}

TEST_F(Device, AReiserfsEndsBehindItsBlocks) {
  put_text(65536 + 52, "ReIsEr2Fs");
  put(65536, htole32(100));
  put(65536 + 44, htole16(4096));
  EXPECT_EQ(end("reiserfs"), 100u * 4096);
}

TEST_F(Device, OtherKindsHaveNoKnownEnd) {
  make_ext(200);
  EXPECT_EQ(end("btrfs"), std::nullopt);
  EXPECT_EQ(end(""), std::nullopt);
  EXPECT_FALSE(has_reader("btrfs"));
  EXPECT_EQ(file_system_end("/nowhere", "ext4"), std::nullopt);
}

// A snap of a node of 1 MiB in extents of 4 KiB, whose map the test says.
class SnapUsage : public Device {
 protected:
  SnapUsage() {
    node_.extent_size = kExtent;
    node_.dev_size = kSize;
    node_.extent_cnt = kSize / kExtent;
    node_.incr_bmp_size = node_.extent_cnt / 8;
    snap_.minor = 9;
    snap_.chunk_size = 65536;
    libsnbf_options options{};
    options.ioctl = [](void* context, uint32_t command, void* record) {
      return static_cast<SnapUsage*>(context)->answer(command, record);
    };
    options.ioctl_context = this;
    driver_.emplace(&options);
  }
  int answer(uint32_t command, void* record) {
    auto* asked = static_cast<snbf_datablock_cmd*>(record);
    EXPECT_EQ(command, SNBF_GET_DATABLOCK_BMP);
    EXPECT_EQ(asked->minor, 9u);
    EXPECT_EQ(asked->extent_size, 65536u) << "never less than a chunk";
    EXPECT_EQ(asked->size, 2u);
    std::memcpy(reinterpret_cast<void*>(asked->data), &map_, 2);
    asked->size = filled_;
    return rc_;
  }
  Usage usage() { return usage_of(*driver_, node_, snap_, path_); }
  void make_real_ext() {
    const std::string command = "PATH=$PATH:/usr/sbin:/sbin mkfs.ext4 -q -F " + path_ + " 800k >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  snbf_info node_{};
  snbf_info snap_{};
  uint16_t map_ = 0xFFFF;
  uint32_t filled_ = 2;
  int rc_ = 0;
  std::optional<Driver> driver_;
};

TEST_F(SnapUsage, WithoutAFileSystemEverythingIsInUse) {
  map_ = 0;
  EXPECT_TRUE(usage().used.all());
  EXPECT_THAT(usage().why_all, HasSubstr("no file system is recognised"));
}

TEST_F(SnapUsage, AMapOfOnesIsNoMap) {
  make_real_ext();
  EXPECT_TRUE(usage().used.all());
  EXPECT_THAT(usage().why_all, HasSubstr("calls no chunk of this ext4 free"));
}

TEST_F(SnapUsage, AMapFreesWhatLiesInsideTheFileSystem) {
  make_real_ext();
  map_ = 0x0001;
  const Usage found = usage();
  EXPECT_EQ(found.why_all, "");
  EXPECT_TRUE(found.used.test(15));
  EXPECT_FALSE(found.used.test(16));
  EXPECT_FALSE(found.used.test(199));
  EXPECT_TRUE(found.used.test(200)) << "behind the 800 KiB of the file system";
  EXPECT_TRUE(found.used.test(255));
}

TEST_F(SnapUsage, ARefusalIsToldAndAShortMapNotBelieved) {
  rc_ = -EINVAL;
  EXPECT_THROW(usage(), Failure);
  rc_ = 0;
  filled_ = 1;
  EXPECT_THROW(usage(), Failure);
}

}  // namespace
}  // namespace snbf
