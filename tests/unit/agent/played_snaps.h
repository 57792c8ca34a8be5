// SPDX-License-Identifier: GPL-2.0-only
// A driver that the test plays, as far as a snap's life needs one, and the library over it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "libsnbf.h"

namespace snbf::played {

constexpr uint64_t kSize = 1 << 20;
constexpr uint32_t kChunk = 65536;

// As much of the driver as a snap's life needs. Its refusals that keep the table locked end the
// test.
class Driver {
 public:
  explicit Driver(const std::string& bmp_dir, const std::string& hdd) {
    snbf_info& filter = nodes_[0];
    filter.dev_type = SNBF_DEV_FILTER;
    filter.dev_size = kSize;
    filter.started = 1;
    filter.incr_bmp_size = filter.diff_bmp_size = 2;
    std::strcpy(filter.name, "data");
    std::strcpy(filter.uuid, "{data}");
    std::strcpy(filter.hdd_name, hdd.c_str());
    std::strcpy(filter.incr_bmp_fname, (bmp_dir + "/snbf0.incr").c_str());
  }

  int answer(uint32_t command, void* record) {
    const uint32_t minor = *static_cast<uint32_t*>(record);
    sent_.push_back(command);
    if (answer_first_) {
      if (const auto rc = answer_first_(command, record)) return *rc;
    }
    if (refuse_[command] != 0) return refuse_[command];
    switch (command) {
      case SNBF_GET_DEVICE_LIST:
        return list(static_cast<snbf_device_list*>(record));
      case SNBF_ADD_SNAP_NODE:
        return add(static_cast<snbf_snap_node_cmd*>(record));
      case SNBF_RESUME_SNAP:
        return resume(*static_cast<snbf_resume_cmd*>(record));
    }
    if (!nodes_.contains(minor)) return -EINVAL;
    switch (command) {
      case SNBF_GET_INFO:
        *static_cast<snbf_info*>(record) = info(minor);
        return 0;
      case SNBF_START_NODE:
        return start(minor);
      case SNBF_STOP_NODE:
        return stop(minor);
      case SNBF_DEL_NODE:
        return del(minor);
      case SNBF_GET_BMP: {
        const auto* bits = static_cast<snbf_bmp_cmd*>(record);
        std::memset(reinterpret_cast<void*>(bits->data), bits_, static_cast<size_t>(bits->size));
        return 0;
      }
    }
    return 0;
  }

  snbf_info info(uint32_t minor) {
    snbf_info found = nodes_.at(minor);
    found.minor = minor;
    for (uint32_t snap : order_) {
      if (minor == 0) found.snap_minors[found.snap_cnt++] = snap;
    }
    return found;
  }
  snbf_info& node(uint32_t minor) { return nodes_.at(minor); }
  uint32_t minor_of(const std::string& name) {
    for (const auto& [minor, info] : nodes_) {
      if (name == info.name) return minor;
    }
    return UINT32_MAX;
  }
  void add_filter(uint32_t minor, const std::string& bmp_dir) {
    snbf_info& filter = nodes_[minor];
    filter.dev_type = SNBF_DEV_FILTER;
    std::strcpy(filter.name, "other");
    std::strcpy(filter.incr_bmp_fname, (bmp_dir + "/snbf1.incr").c_str());
  }
  // As a restart leaves it: no snap nodes, a filter node that is not started.
  void restart() {
    for (uint32_t snap : order_) nodes_.erase(snap);
    order_.clear();
    nodes_.at(0).started = 0;
  }

  std::vector<uint32_t> sent_;
  std::vector<uint32_t> resumed_;
  std::map<uint32_t, int> refuse_;
  std::function<std::optional<int>(uint32_t, void*)> answer_first_;
  std::function<void()> on_resume_;
  std::function<void()> on_start_;
  uint32_t valid_after_start_ = 1;
  int bits_ = 0x5A;

 private:
  int list(snbf_device_list* out) {
    for (const auto& [minor, info] : nodes_) {
      if (info.dev_type == out->dev_type) out->minors[out->count++] = minor;
    }
    return 0;
  }
  int add(snbf_snap_node_cmd* record) {
    for (uint32_t snap : order_) EXPECT_EQ(nodes_.at(snap).chunk_size, record->chunk_size);
    const auto minor = static_cast<uint32_t>(record->snap_minor);
    EXPECT_FALSE(nodes_.contains(minor));
    snbf_info& snap = nodes_[minor];
    snap.dev_type = SNBF_DEV_SNAP;
    snap.chunk_size = record->chunk_size;
    std::memcpy(snap.name, record->name, sizeof snap.name);
    std::memcpy(snap.uuid, record->uuid, sizeof snap.uuid);
    std::memcpy(snap.cow_data_fname, record->cow_data_fname, sizeof snap.cow_data_fname);
    std::memcpy(snap.cow_bmp_fname, record->cow_bmp_fname, sizeof snap.cow_bmp_fname);
    order_.push_back(minor);
    return 0;
  }
  int start(uint32_t minor) {
    snbf_info& node = nodes_.at(minor);
    if (on_start_) on_start_();
    node.started = 1;
    if (node.dev_type != SNBF_DEV_SNAP) return 0;
    node.snap_valid = valid_after_start_;
    std::ofstream(node.cow_data_fname).close();
    std::ofstream(node.cow_bmp_fname).close();
    std::filesystem::resize_file(node.cow_data_fname, kSize);
    std::filesystem::resize_file(node.cow_bmp_fname, kSize / kChunk / 8);
    return 0;
  }
  int stop(uint32_t minor) {
    if (nodes_.at(minor).dev_type == SNBF_DEV_FILTER) {
      for (uint32_t snap : order_) stop(snap);
    }
    nodes_.at(minor).started = 0;
    nodes_.at(minor).stop_pending = 0;
    return 0;
  }
  int del(uint32_t minor) {
    for (uint32_t older : order_) {
      if (older == minor) break;
      if (nodes_.at(older).started && nodes_.at(minor).started) {
        nodes_.at(minor).stop_pending = nodes_.at(minor).del_pending = 1;
        return 0;
      }
    }
    ::unlink(nodes_.at(minor).cow_data_fname);
    ::unlink(nodes_.at(minor).cow_bmp_fname);
    nodes_.erase(minor);
    std::erase(order_, minor);
    return 0;
  }
  int resume(const snbf_resume_cmd& record) {
    EXPECT_TRUE(nodes_.contains(record.minor));
    snbf_info& snap = nodes_.at(record.minor);
    EXPECT_EQ(snap.dev_type, static_cast<uint32_t>(SNBF_DEV_SNAP));
    EXPECT_FALSE(snap.started);
    snap.started = 1;
    snap.snap_valid = record.snap_valid;
    snap.stop_pending = record.stop_pending;
    snap.del_pending = record.del_pending;
    nodes_.at(0).started = 1;
    resumed_.push_back(record.minor);
    if (on_resume_) on_resume_();
    return 0;
  }

  std::map<uint32_t, snbf_info> nodes_;
  std::vector<uint32_t> order_;
};

class Snaps : public testing::Test {
 protected:
  Snaps() {
    // Beside the program, since COW files need a disk: what is built lies on one, and /tmp may not.
    std::string name = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "snaps-XXXXXX";
    dir_ = ::mkdtemp(name.data());
    std::filesystem::create_directories(dir_ + "/cow");
    put("hdd", std::string(kSize, 'h'));
    put("snbf/blk_major", "240\n");
    put("snbf/snbf0/hdd_major", "7\n");
    put("snbf/snbf0/hdd_minor", "99\n");
    put("snbf/snbf0/incr_bmp_dirty", "0\n");
    put("snbf/snbf0/diff_bmp_dirty", "0\n");
    put("module/snbf/parameters/snbf_max_blk_minor", "255\n");
    put("sys/kernel/random/boot_id", "this-boot\n");
    put("sys/kernel/random/uuid", "00000000-0000-0000-0000-000000000000\n");
    driver_.emplace(dir_, dir_ + "/hdd");
    libsnbf_state state{};
    std::strcpy(state.name, "data");
    state.epoch = 1;
    EXPECT_EQ(libsnbf_state_write(dir_.c_str(), 0, &state), 0);
    const std::string lock = dir_ + "/lock";
    libsnbf_options options{};
    options.lock_path = lock.c_str();
    options.sys_root = options.proc_root = dir_.c_str();
    const std::string devices = dir_ + "/device-files";
    options.dev_root = devices.c_str();
    options.ioctl = [](void* context, uint32_t command, void* record) {
      return static_cast<Snaps*>(context)->driver_->answer(command, record);
    };
    options.ioctl_context = this;
    EXPECT_EQ(libsnbf_open(&options, &handle_), 0);
  }
  ~Snaps() override {
    libsnbf_close(handle_);
    std::filesystem::remove_all(dir_);
  }
  void SetUp() override {
    struct stat about;
    ASSERT_EQ(::stat(dir_.c_str(), &about), 0);
    ASSERT_NE(major(about.st_dev), 0u) << dir_ << ": its file system has no disk of its own";
  }

  void put(const std::string& file, const std::string& text) {
    const std::filesystem::path path = dir_ + "/" + file;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  // Each snap has a UUID of its own, as the kernel would give it.
  int create(const std::string& name, uint32_t chunk = 0, bool overwrite = false) {
    put("sys/kernel/random/uuid", name + "\n");
    const std::string cow = dir_ + "/cow";
    libsnbf_snap_request request{};
    request.name = name.c_str();
    request.cow_dir = cow.c_str();
    request.chunk_size = chunk;
    request.overwrite = overwrite;
    const int rc = libsnbf_snap_create(handle_, &request);
    made_ = request;
    return rc;
  }
  int remove(const std::string& name, int* postponed = nullptr) {
    int ignored = 0;
    return libsnbf_snap_delete(handle_, driver_->minor_of(name), nullptr,
                               postponed ? postponed : &ignored);
  }
  bool there(const std::string& file) const { return std::filesystem::exists(dir_ + "/" + file); }
  // NAME=why of each record, oldest first.
  std::vector<std::string> judged() {
    std::vector<std::string> found;
    const auto visit = [](void* to, const libsnbf_snap_record* record, const char* why) {
      static_cast<std::vector<std::string>*>(to)->push_back(std::string(record->name) + "=" + why);
    };
    EXPECT_EQ(libsnbf_snap_each(handle_, 0, visit, &found), 0);
    return found;
  }
  // NAME=clean of each record, while the library holds its lock.
  std::vector<std::string> judged_now() {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      libsnbf_snap_record record;
      if (entry.path().extension() != ".snap") continue;
      const std::string name = entry.path().stem();
      EXPECT_EQ(libsnbf_snap_record_read(dir_.c_str(), name.c_str(), &record), 0);
      found.push_back(name + "=" + std::to_string(record.stopped_clean));
    }
    return found;
  }
  uint32_t resume(int wanted = 0) {
    uint32_t resumed = 0;
    EXPECT_EQ(libsnbf_snap_resume(handle_, 0, &resumed), wanted);
    return resumed;
  }
  void two_snaps_stopped_with_their_node() {
    ASSERT_EQ(create("older"), 0);
    ASSERT_EQ(create("newer"), 0);
    ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
    driver_->restart();
  }

  std::string dir_;
  std::optional<Driver> driver_;
  libsnbf* handle_ = nullptr;
  libsnbf_snap_request made_{};
};

}  // namespace snbf::played
