// SPDX-License-Identifier: GPL-2.0-only
// Where a path really lies, in a played sysfs: down through what is stacked, and round a ring.
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "handle.h"
#include "played_devices.h"

namespace snbf::played {
namespace {

constexpr unsigned kNodes = 240;  // the driver's major
constexpr dev_t kDisk = 0x0800;   // 8:0
constexpr dev_t kPartition = kDisk + 1;
constexpr dev_t kElsewhere = kDisk + 16;

dev_t node(unsigned minor) { return makedev(kNodes, minor); }

class Stores : public testing::Test {
 protected:
  Stores() {
    char name[] = "/tmp/stores-XXXXXX";
    dir_ = ::mkdtemp(name);
    put("snbf/blk_major", std::to_string(kNodes) + "\n");
    put("self/mountinfo", "");
    const std::string lock = dir_ + "/lock";
    libsnbf_options options{};
    options.lock_path = lock.c_str();
    options.sys_root = options.proc_root = dir_.c_str();
    options.ioctl = [](void* context, uint32_t command, void* record) {
      auto& nodes = static_cast<Stores*>(context)->nodes_;
      auto* info = static_cast<snbf_info*>(record);
      if (command != SNBF_GET_INFO || !nodes.contains(info->minor)) return -EINVAL;
      *info = nodes.at(info->minor);
      return 0;
    };
    options.ioctl_context = this;
    EXPECT_EQ(libsnbf_open(&options, &handle_), 0);
  }
  ~Stores() override {
    libsnbf_close(handle_);
    forget_played();
    std::filesystem::remove_all(dir_);
  }

  void put(const std::string& file, const std::string& text) {
    const std::filesystem::path path = dir_ + "/" + file;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  static std::string text_of(dev_t device) {
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
  }
  static std::string sys_folder(dev_t device) { return "dev/block/" + text_of(device); }
  // A folder on the file system of that device.
  std::string folder(const std::string& name, dev_t device) {
    const std::string path = dir_ + "/" + name;
    std::filesystem::create_directories(path);
    play_file_system(path, device);
    return path;
  }
  void put_slave(dev_t device, dev_t slave) {
    put(sys_folder(device) + "/slaves/" + std::to_string(minor(slave)) + "/dev",
        text_of(slave) + "\n");
  }
  void put_loop(dev_t device, const std::string& file) {
    put(sys_folder(device) + "/loop/backing_file", file + "\n");
  }
  void put_partition() {
    put("devices/sda/dev", text_of(kDisk) + "\n");
    put("devices/sda/sda1/partition", "1\n");
    std::filesystem::create_directories(dir_ + "/dev/block");
    std::filesystem::create_directory_symlink(dir_ + "/devices/sda/sda1",
                                              dir_ + "/" + sys_folder(kPartition));
  }
  // A filter node over `hdd` with its files in `store`.
  void put_node(unsigned minor, dev_t hdd, const std::string& store) {
    const std::string proc = "snbf/snbf" + std::to_string(minor);
    put(proc + "/hdd_major", std::to_string(major(hdd)) + "\n");
    put(proc + "/hdd_minor", std::to_string(::minor(hdd)) + "\n");
    snbf_info& info = nodes_[minor];
    info.minor = minor;
    info.dev_type = SNBF_DEV_FILTER;
    std::strcpy(info.uuid, std::to_string(minor).c_str());
    std::strcpy(info.incr_bmp_fname, (store + "/snbf" + std::to_string(minor) + ".incr").c_str());
    libsnbf_state state{};
    std::strcpy(state.uuid, info.uuid);
    EXPECT_EQ(libsnbf_state_write(store.c_str(), minor, &state), 0);
  }
  void put_snap(unsigned filter, unsigned minor, const std::string& cow) {
    snbf_info& above = nodes_.at(filter);
    above.snap_minors[above.snap_cnt++] = minor;
    snbf_info& info = nodes_[minor];
    info.minor = minor;
    info.dev_type = SNBF_DEV_SNAP;
    std::strcpy(info.cow_data_fname, (cow + "/s.cow").c_str());
    std::strcpy(info.cow_bmp_fname, (cow + "/s.cowmap").c_str());
  }
  bool is_on(const std::string& path, dev_t device) {
    int answer = -1;
    EXPECT_EQ(libsnbf_path_is_on(handle_, path.c_str(), major(device), minor(device), &answer), 0);
    return answer == 1;
  }
  int store(const std::string& path, dev_t device) {
    return lib::check_store(handle_, path.c_str(), device);
  }
  int cow_dir(const std::string& path, unsigned minor) {
    return libsnbf_cow_dir_check(handle_, path.c_str(), minor);
  }

  std::string dir_;
  libsnbf* handle_ = nullptr;
  std::map<uint32_t, snbf_info> nodes_;
};

TEST_F(Stores, APartitionLiesOnItsDiskAndNotBesideItself) {
  put_partition();
  const std::string path = folder("mnt", kPartition);
  EXPECT_TRUE(is_on(path, kPartition));
  EXPECT_TRUE(is_on(path, kDisk));
  EXPECT_FALSE(is_on(path, kDisk + 2));
  EXPECT_TRUE(is_on(path + "/not/made/yet", kPartition));
}

TEST_F(Stores, MappingsArraysAndLoopsAreFollowedDownHoweverNested) {
  const dev_t lower_dm = makedev(253, 0), array = makedev(9, 0), loop = makedev(7, 0),
              upper_dm = makedev(253, 1), cached = makedev(252, 0);
  put_partition();
  put_slave(lower_dm, kPartition);
  put_slave(array, kElsewhere);
  put_slave(array, lower_dm);
  put_loop(loop, folder("on-array", array) + "/image");
  put_slave(upper_dm, loop);
  put_slave(cached, upper_dm);
  put_slave(cached, kElsewhere + 1);
  const std::string top = folder("top", cached);
  for (const dev_t below :
       {cached, upper_dm, loop, array, lower_dm, kPartition, kDisk, kElsewhere}) {
    EXPECT_TRUE(is_on(top, below)) << text_of(below);
  }
  EXPECT_FALSE(is_on(top, kElsewhere + 2));
  EXPECT_EQ(store(top, kPartition), -ELOOP);
  EXPECT_EQ(store(top, kElsewhere + 2), 0);
}

TEST_F(Stores, ALoopOverAPartitionOfALoopIsFollowedToo) {
  put_loop(makedev(7, 0), folder("disk", kElsewhere) + "/image");
  put("devices/loop0/dev", "7:0\n");
  put("devices/loop0/loop0p1/partition", "1\n");
  std::filesystem::create_directory_symlink(dir_ + "/devices/loop0/loop0p1",
                                            dir_ + "/dev/block/259:0");
  EXPECT_TRUE(is_on(folder("inner", makedev(259, 0)), kElsewhere));
}

TEST_F(Stores, AMappingThatLeadsBackToItselfEnds) {
  put_slave(makedev(253, 0), makedev(253, 1));
  put_slave(makedev(253, 1), makedev(253, 0));
  EXPECT_FALSE(is_on(folder("mnt", makedev(253, 0)), kElsewhere));
}

// --- file systems without a device number of their own ----------------------------------------------

TEST_F(Stores, AnOverlayLiesWhereItsUpperFolderDoes) {
  const std::string upper = folder("upper", kPartition);
  put("self/mountinfo", "30 1 0:40 / " + dir_ +
                            "/merged rw - overlay overlay rw,lowerdir=/l,upperdir=" + upper +
                            ",workdir=/w\n");
  const std::string merged = folder("merged", makedev(0, 40));
  EXPECT_TRUE(is_on(merged, kPartition));
  EXPECT_FALSE(is_on(merged, kElsewhere));
}

TEST_F(Stores, ATmpfsLiesOnNoDisk) {
  put("self/mountinfo", "30 1 0:41 / " + dir_ + "/tmp rw - tmpfs tmpfs rw\n");
  const std::string path = folder("tmp", makedev(0, 41));
  EXPECT_FALSE(is_on(path, kPartition));
  EXPECT_EQ(store(path, kPartition), 0);
}

TEST_F(Stores, ABtrfsLiesOnAllOfItsDevices) {
  play_device(dir_ + "/first", kPartition);
  put("first", "");
  put("self/mountinfo", "30 1 0:42 / " + dir_ + "/pool rw - btrfs " + dir_ + "/first rw\n");
  put("fs/btrfs/ours/devices/sda1/dev", text_of(kPartition) + "\n");
  put("fs/btrfs/ours/devices/sdb/dev", text_of(kElsewhere) + "\n");
  put("fs/btrfs/others/devices/sdc/dev", text_of(kElsewhere + 16) + "\n");
  const std::string pool = folder("pool", makedev(0, 42));
  EXPECT_TRUE(is_on(pool, kPartition));
  EXPECT_TRUE(is_on(pool, kElsewhere));
  EXPECT_FALSE(is_on(pool, kElsewhere + 16));
}

TEST_F(Stores, CowFilesNeedAFileSystemWithADisk) {
  put_node(0, kPartition, folder("root", kElsewhere));
  for (const char* type : {"tmpfs", "overlay", "btrfs"}) {
    EXPECT_EQ(cow_dir(folder(type, makedev(0, 50)), 0), -EXDEV) << type;
  }
  put("file", "");
  EXPECT_EQ(cow_dir(dir_ + "/file", 0), -ENOTDIR);
  EXPECT_EQ(cow_dir(dir_ + "/none", 0), -ENOENT);
  EXPECT_EQ(cow_dir(dir_ + "/root", 0), 0);
}

// --- rings of nodes -----------------------------------------------------------------------------------

// Each over a partition of its own, its bitmap files on the next one's file system.
TEST_F(Stores, ANodeLiesOnItsPartitionAndWithItsFilesOnWhatHoldsThem) {
  put_node(0, kPartition, folder("root", kElsewhere));
  const std::string on0 = folder("on0", node(0));
  EXPECT_TRUE(is_on(on0, kPartition));
  EXPECT_FALSE(is_on(on0, kElsewhere)) << "its bytes do not";
  EXPECT_EQ(store(on0, kPartition), -ELOOP);
  EXPECT_EQ(store(on0, kElsewhere), -ELOOP) << "but its writes wait for what lies there";
  EXPECT_EQ(store(on0, kElsewhere + 1), 0);
}

TEST_F(Stores, ARingOfTwoIsSeen) {
  put_node(0, kDisk, folder("root", kElsewhere));
  put_node(1, kDisk + 32, folder("on0", node(0)));
  EXPECT_EQ(cow_dir(folder("on1", node(1)), 0), -ELOOP) << "node 1 keeps its bitmaps on node 0";
  EXPECT_EQ(cow_dir(dir_ + "/on0", 1), 0) << "node 0 needs nothing of node 1";
}

TEST_F(Stores, ARingOfThreeThroughALoopIsSeen) {
  put_node(0, kDisk, folder("root", kElsewhere));
  put_node(1, kDisk + 32, folder("on0", node(0)));
  put_loop(makedev(7, 0), folder("on1", node(1)) + "/image");
  put_node(2, kDisk + 48, folder("in-loop", makedev(7, 0)));
  const std::string on2 = folder("on2", node(2));
  EXPECT_EQ(cow_dir(on2, 0), -ELOOP);
  EXPECT_EQ(cow_dir(on2, 1), -ELOOP);
  EXPECT_EQ(cow_dir(on2, 2), -ELOOP) << "itself";
  EXPECT_EQ(store(on2, kDisk), -ELOOP);
}

TEST_F(Stores, ARingThroughTheFilesOfASnapIsSeen) {
  put_node(0, kDisk, folder("root", kElsewhere));
  put_node(1, kDisk + 32, dir_ + "/root");
  put_snap(1, 5, folder("on0", node(0)));
  EXPECT_EQ(cow_dir(folder("on1", node(1)), 0), -ELOOP);
  nodes_.at(1).snap_cnt = 0;
  EXPECT_EQ(cow_dir(dir_ + "/on1", 0), 0);
}

TEST_F(Stores, WhatANodesFilesLieOnMustBeInSight) {
  put_node(0, kDisk, folder("root", kElsewhere));
  put_node(1, kDisk + 32, folder("away", kElsewhere));
  const std::string on1 = folder("on1", node(1));
  EXPECT_EQ(store(on1, kDisk), 0);
  std::filesystem::remove(dir_ + "/away/snbf1.state");
  EXPECT_EQ(store(on1, kDisk), -ENOLINK);
  EXPECT_EQ(cow_dir(on1, 0), -ENOLINK);
  EXPECT_EQ(cow_dir(dir_ + "/root", 0), 0) << "not on the way";
}

}  // namespace
}  // namespace snbf::played
