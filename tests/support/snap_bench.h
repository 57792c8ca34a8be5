// The loaded driver with a started filter node and a store for COW files, as an agent that takes
// snaps finds it.
#pragma once

#include "driver_rig.h"
#include "snap/cowbmp.h"

namespace snbf::sim {

constexpr u32 kOrigin = 3;  // the filter node's minor
constexpr u32 kPageBytes4K = 4096;

struct SnapBenchOptions {
  u64 bytes = 1 << 20;
  u64 store_bytes = 16 << 20;
  u32 extent_size = 65536;
  int debug = 4;
  int minor_max = 255;
  bool started = true;
};

// sda1 is the partition, node snbf3; sdb1 the store, mounted at /store. What is left is taken down
// at the end.
class SnapBench {
 public:
  explicit SnapBench(Sim& kernel, const SnapBenchOptions& options = {}) : sim(kernel) {
    disk = sim.add_device({.name = "sda1", .bytes = options.bytes});
    store_disk = sim.add_device({.name = "sdb1", .bytes = options.store_bytes});
    store = sim.add_fs("store", store_disk->number());
    EXPECT_EQ(sim.mount(store, "/store"), 0);
    sim.make_dir("/var");
    sim.make_dir("/var/bmp");
    EXPECT_EQ(sim.load_driver({.debug = options.debug, .max_blk_minor = options.minor_max}), 0);
    snbf_filter_node_cmd record =
        filter_record("/dev/sda1", static_cast<int>(kOrigin), options.extent_size);
    EXPECT_EQ(add_filter(sim, record), 0);
    if (options.started) {
      EXPECT_EQ(start_node(sim, kOrigin), 0);
    }
    sim.sleep_us(1000);
    sim.log().clear();
  }
  ~SnapBench() {
    if (sim.driver_loaded()) {
      EXPECT_EQ(delete_node(sim, kOrigin), 0);
      EXPECT_EQ(sim.unload_driver(), 0);
    }
  }

  snbf_snap_node_cmd record(const std::string& files, int minor = -1, u32 chunk_size = 4096) const {
    snbf_snap_node_cmd command = {};
    command.snbf_minor = kOrigin;
    command.snap_minor = minor;
    command.chunk_size = chunk_size;
    std::strncpy(command.cow_bmp_fname, (files + ".bmp").c_str(),
                 sizeof(command.cow_bmp_fname) - 1);
    std::strncpy(command.cow_data_fname, (files + ".data").c_str(),
                 sizeof(command.cow_data_fname) - 1);
    return command;
  }
  int add(snbf_snap_node_cmd& command) {
    return sim.ioctl(SNBF_ADD_SNAP_NODE, &command, sizeof(command));
  }
  // With its files at /store/snapN of the minor.
  int add(u32 minor, u32 chunk_size = 4096) {
    snbf_snap_node_cmd command = record(files(minor), static_cast<int>(minor), chunk_size);
    return add(command);
  }
  void add_started(u32 minor, u32 chunk_size = 4096) {
    ASSERT_EQ(add(minor, chunk_size), 0);
    ASSERT_EQ(start_node(sim, minor), 0);
  }
  int resume(u32 minor, u32 snap_valid = 1, u32 stop_pending = 0, u32 del_pending = 0) {
    snbf_resume_cmd command = {minor, snap_valid, stop_pending, del_pending};
    return sim.ioctl(SNBF_RESUME_SNAP, &command, sizeof(command));
  }

  static std::string files(u32 minor) { return "/store/snap" + std::to_string(minor); }
  static std::string data_file(u32 minor) { return files(minor) + ".data"; }
  static std::string bmp_file(u32 minor) { return files(minor) + ".bmp"; }

  int write(u64 chunk, u8 fill, u32 bytes = 4096) {
    return sim.write(kNode(kOrigin), chunk * 8, Bytes(bytes, fill));
  }
  // The byte that fills the block, or -1; negative errors as they are.
  int read(u32 minor, u64 block) {
    Bytes data;
    if (const int rc = sim.read(kNode(minor), block * 8, 4096, &data); rc != 0) return rc;
    for (const u8 byte : data) {
      if (byte != data[0]) return -1;
    }
    return data[0];
  }
  // kcowd takes the table's lock for a moment now and then; one that is left held stays.
  void expect_table(int count) {
    sim.wait_until([&] { return snbf_blkdev_rwlock.count() == count; });
  }
  std::string proc(u32 minor, const std::string& field) {
    return sim.proc("/proc/snbf/snbf" + std::to_string(minor) + "/" + field);
  }
  int errors(const std::string& text) { return sim.log().count(text, 3); }
  Bytes file(const std::string& path) {
    Bytes data;
    EXPECT_EQ(sim.read_file(path, &data), 0) << path;
    return data;
  }
  SnapNode* snap(u32 minor) { return static_cast<SnapNode*>(find_node(minor)); }
  FilterNode* filter() { return filter_at(kOrigin); }

  Sim& sim;
  Device* disk = nullptr;
  Device* store_disk = nullptr;
  FileSystem* store = nullptr;
};

}  // namespace snbf::sim
