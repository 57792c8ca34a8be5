// The loaded driver as its agent sees it: records filled, commands sent, nodes looked at.
#pragma once

#include <cstring>
#include <string>

#include "base/errno.h"
#include "block/node.h"
#include "core/memory.h"
#include "sim_test.h"
#include "snbf/protocol.h"

namespace snbf::sim {

constexpr u32 kExtentBytes = 65536;
constexpr plat_devt kNode(u32 minor) { return dev(100, minor); }

inline snbf_filter_node_cmd filter_record(const std::string& partition, int minor,
                                          u32 extent_size = kExtentBytes,
                                          const std::string& bmp_dir = "/var/bmp") {
  snbf_filter_node_cmd record = {};
  std::strncpy(record.hdd_name, partition.c_str(), sizeof(record.hdd_name) - 1);
  record.minor = minor;
  record.extent_size = extent_size;
  std::strncpy(record.bmp_dir, bmp_dir.c_str(), sizeof(record.bmp_dir) - 1);
  return record;
}

inline int add_filter(Sim& sim, snbf_filter_node_cmd& record) {
  return sim.ioctl(SNBF_ADD_FILTER_NODE, &record, sizeof(record));
}
inline int add_filter(Sim& sim, const std::string& partition, int minor) {
  snbf_filter_node_cmd record = filter_record(partition, minor);
  return add_filter(sim, record);
}
inline int minor_command(Sim& sim, unsigned command, u32 minor) {
  snbf_minor_cmd record{minor};
  return sim.ioctl(command, &record, sizeof(record));
}
inline int start_node(Sim& sim, u32 minor) { return minor_command(sim, SNBF_START_NODE, minor); }
inline int stop_node(Sim& sim, u32 minor) { return minor_command(sim, SNBF_STOP_NODE, minor); }
inline int delete_node(Sim& sim, u32 minor) { return minor_command(sim, SNBF_DEL_NODE, minor); }

inline snbf_info info_of(Sim& sim, u32 minor) {
  snbf_info info = {};
  info.minor = minor;
  EXPECT_EQ(sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)), 0);
  return info;
}

// A machine with a partition /dev/sda1 of 16 MiB, a folder for bitmaps, and the driver.
inline void load_with_partition(Sim& sim, const DriverParams& params = {.debug = 4},
                                u32 queue_depth = 0) {
  sim.add_device({.name = "sda1", .bytes = 16 << 20, .queue_depth = queue_depth});
  sim.make_dir("/var");
  sim.make_dir("/var/bmp");
  ASSERT_EQ(sim.load_driver(params), 0);
  sim.sleep_us(1000);  // kdirtyd has said that it runs
}

inline FilterNode* filter_at(u32 minor) { return static_cast<FilterNode*>(find_node(minor)); }

// A snap hung on the filter by hand: a record in the table and in the filter's list, without a
// disk.
inline SnapNode* hang_snap(FilterNode* filter, u32 minor) {
  SnapNode* snap = heap_new<SnapNode>(PLAT_ALLOC_NORMAL);
  snap->dev_type = kSnapNode;
  snap->minor = minor;
  snap->node_mutex.init();
  snap->filter_node = filter;
  TableWriteGuard table;
  snbf_blkdev_arr[minor] = snap;
  filter->snaps.push_back(snap);
  return snap;
}

}  // namespace snbf::sim
