// SPDX-License-Identifier: GPL-2.0-only
// A driver with bitmaps that outlive the process: a test can kill a capture at any command, and see
// what the next one makes of it.
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>

#include <array>
#include <bit>
#include <set>

#include "libsnbf_capture.h"
#include "played_snaps.h"

namespace snbf::played {

constexpr uint32_t kExtent = 65536;
constexpr uint32_t kBitsBytes = kSize / kExtent / 8;

// Writes that are held, and what /sys says of requests under way: reads and writes.
constexpr const char* kHeld = "snbf/snbf0/cowqueue_len";
constexpr const char* kAtNode = "dev/block/240:0/inflight";
constexpr const char* kAtHdd = "dev/block/7:99/inflight";
constexpr const char* kDevice = "device-files/snbf/snbf0";

using Marks = std::set<int>;

inline Marks marks_of(const void* bits) {
  Marks found;
  for (int extent = 0; extent < static_cast<int>(kBitsBytes * 8); ++extent) {
    if ((static_cast<const uint8_t*>(bits)[extent / 8] >> (extent % 8)) & 1) found.insert(extent);
  }
  return found;
}

inline Marks all_marks() {
  Marks all;
  for (int extent = 0; extent < static_cast<int>(kBitsBytes * 8); ++extent) all.insert(extent);
  return all;
}

// In memory that a child shares.
struct Bitmaps {
  uint8_t bits[3][kBitsBytes];  // by type
  int commands;                 // that were sent
  int die_at;                   // the process is killed before this one; 0: never
  int fail_at;                  // this one is refused; 0: none
  uint32_t fail_behind;         // such a command is carried out, and answers an error
  uint32_t write_at;            // a write to extent 15 comes in before this command
  int write_skips;              // not before the first so many of them
  int written;                  // it has come
};

class Captures : public Snaps {
 protected:
  Captures() {
    void* shared =
        ::mmap(nullptr, sizeof(Bitmaps), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    bitmaps_ = new (shared) Bitmaps{};
    snbf_info& filter = driver_->node(0);
    filter.extent_size = kExtent;
    filter.extent_cnt = kSize / kExtent;
    filter.incr_bmp_size = filter.diff_bmp_size = kBitsBytes;
    driver_->answer_first_ = [this](uint32_t command, void* record) {
      return answer(command, record);
    };
    put(kDevice, "");
    put(kHeld, "0\n");
    put(kAtNode, "0 0\n");
    put(kAtHdd, "0 0\n");
  }
  ~Captures() override {
    libsnbf_capture_close(capture_);
    ::munmap(bitmaps_, sizeof(Bitmaps));
  }

  // The disk has a partition, which is the node's; in /sys a link leads to its folder.
  void put_on_a_partition() {
    std::filesystem::remove_all(dir_ + "/dev/block/7:99");
    put("devices/disk/inflight", "0 0\n");
    put("devices/disk/part/inflight", "0 0\n");
    put("devices/disk/part/partition", "1\n");
    std::filesystem::create_directory_symlink("../../devices/disk/part", dir_ + "/dev/block/7:99");
  }
  void mark(uint32_t type, int extent) {
    bitmaps_->bits[type][extent / 8] |= static_cast<uint8_t>(1u << (extent % 8));
  }
  Marks marked(uint32_t type) const { return marks_of(bitmaps_->bits[type]); }

  int open() { return libsnbf_capture_open(handle_, 0, &capture_); }
  void close() {
    libsnbf_capture_close(capture_);
    capture_ = nullptr;
  }
  int begin(libsnbf_level level, bool with_snap = true) {
    const std::string cow = dir_ + "/cow";
    libsnbf_capture_request request{};
    request.level = level;
    request.destination = "/backups";
    request.point = "chain:7";
    request.cow_dir = with_snap ? cow.c_str() : nullptr;
    put("sys/kernel/random/uuid", "backup\n");
    return libsnbf_capture_begin(capture_, &request);
  }
  Marks wanted() {
    uint8_t bits[kBitsBytes];
    EXPECT_EQ(libsnbf_capture_source(capture_, &source_, bits, sizeof bits), 0);
    return marks_of(bits);
  }
  int recover(bool known, libsnbf_recovered* out) {
    const auto answer = [](void* context, const char* destination, const char* point) {
      EXPECT_STREQ(destination, "/backups");
      EXPECT_STREQ(point, "chain:7");
      return static_cast<int>(*static_cast<bool*>(context));
    };
    return libsnbf_capture_recover(capture_, answer, &known, out, nullptr);
  }
  libsnbf_state state() {
    libsnbf_state found{};
    EXPECT_EQ(libsnbf_state_read(dir_.c_str(), 0, &found), 0);
    return found;
  }
  libsnbf_last_capture last() {
    libsnbf_last_capture found{};
    EXPECT_EQ(libsnbf_capture_last(handle_, 0, &found), 0);
    return found;
  }
  bool pending() {
    int answer = 0;
    EXPECT_EQ(libsnbf_capture_pending(handle_, 0, &answer), 0);
    return answer != 0;
  }
  bool a_snap_is_left() const { return there("data-backup.snap"); }

  Bitmaps* bitmaps_ = nullptr;
  libsnbf_capture* capture_ = nullptr;
  libsnbf_source source_{};

 private:
  std::optional<int> answer(uint32_t command, void* record) {
    ++bitmaps_->commands;
    if (bitmaps_->commands == bitmaps_->die_at) ::_exit(9);
    if (bitmaps_->commands == bitmaps_->fail_at) return -EIO;
    if (command == bitmaps_->write_at && bitmaps_->write_skips-- <= 0) {
      mark(SNBF_BMP_INCR, 15);
      mark(SNBF_BMP_DIFF, 15);
      bitmaps_->written = 1;
    }
    const bool of_bits = command == SNBF_GET_BMP || command == SNBF_GET_AND_CLR_BMP ||
                         command == SNBF_MERGE_BMP || command == SNBF_SET_BMP;
    if (!of_bits) return std::nullopt;
    const int rc = change(command, *static_cast<snbf_bmp_cmd*>(record));
    return command == bitmaps_->fail_behind ? -EIO : rc;
  }
  int change(uint32_t command, const snbf_bmp_cmd& record) {
    uint8_t* mine = bitmaps_->bits[record.type];
    auto* theirs = reinterpret_cast<uint8_t*>(record.data);
    if (command == SNBF_SET_BMP && record.size == 0) {
      std::memset(mine, 0xFF, kBitsBytes);
      return 0;
    }
    if (record.size != static_cast<int32_t>(kBitsBytes)) return -EINVAL;
    for (uint32_t i = 0; i < kBitsBytes; ++i) {
      if (command == SNBF_MERGE_BMP) mine[i] |= theirs[i];
      if (command == SNBF_SET_BMP) mine[i] = theirs[i];
      if (command == SNBF_GET_BMP || command == SNBF_GET_AND_CLR_BMP) theirs[i] = mine[i];
      if (command == SNBF_GET_AND_CLR_BMP) mine[i] = 0;
    }
    return 0;
  }
};

}  // namespace snbf::played
