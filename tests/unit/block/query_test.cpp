#include "block/query.h"

#include <cstring>
#include <string>
#include <vector>

#include "driver_rig.h"

namespace snbf::sim {
namespace {

int list_devices(Sim& sim, u32 type, std::vector<u32>* minors) {
  static snbf_device_list list;
  list = {};
  list.dev_type = type;
  const int rc = sim.ioctl(SNBF_GET_DEVICE_LIST, &list, sizeof(list));
  minors->assign(list.minors, list.minors + list.count);
  return rc;
}

// The bits 0 to 8 * bytes - 1 of the Incremental bitmap.
void set_incr(Sim& sim, u32 minor, Bytes bits) {
  UserBuffer data = sim.user(bits);
  snbf_bmp_cmd record{minor, SNBF_BMP_INCR, static_cast<int>(bits.size()), 0, data.address()};
  ASSERT_EQ(sim.ioctl(SNBF_SET_BMP, &record, sizeof(record)), 0);
}

SIM_TEST(DeviceList, ListsNodesOfOneKindInIncreasingOrder) {
  load_with_partition(sim, {.debug = 2});
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  std::vector<u32> minors;
  EXPECT_EQ(list_devices(sim, SNBF_DEV_FILTER, &minors), 0);
  EXPECT_TRUE(minors.empty());
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 9), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sdb1", 2), 0);
  hang_snap(filter_at(9), 5);
  hang_snap(filter_at(9), 4);
  EXPECT_EQ(list_devices(sim, SNBF_DEV_FILTER, &minors), 0);
  EXPECT_EQ(minors, (std::vector<u32>{2, 9}));
  EXPECT_TRUE(
      sim.log().contains("snbf_get_device_list_node(): Returning the list of FILTER devices."));
  EXPECT_EQ(list_devices(sim, SNBF_DEV_SNAP, &minors), 0);
  EXPECT_EQ(minors, (std::vector<u32>{4, 5}));
  EXPECT_TRUE(
      sim.log().contains("snbf_get_device_list_node(): Returning the list of SNAP devices."));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeviceList, LeavesOutTheHighestMinor) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 255), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sdb1", 254), 0);
  std::vector<u32> minors;
  EXPECT_EQ(list_devices(sim, SNBF_DEV_FILTER, &minors), 0);
  EXPECT_EQ(minors, (std::vector<u32>{254}));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeviceList, HoldsThe256LowestMinors) {
  load_with_partition(sim, {.debug = 0, .max_blk_minor = 600});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  for (u32 minor = 599; minor >= 100; --minor) hang_snap(filter_at(0), minor);
  std::vector<u32> minors;
  EXPECT_EQ(list_devices(sim, SNBF_DEV_SNAP, &minors), 0);
  ASSERT_EQ(minors.size(), 256u);
  EXPECT_EQ(minors.front(), 100u);
  EXPECT_EQ(minors.back(), 355u);

  // Info lists the first 256 of a filter's list, in its order.
  const snbf_info info = info_of(sim, 0);
  EXPECT_EQ(info.snap_cnt, 256u);
  EXPECT_EQ(info.snap_minors[0], 599u);
  EXPECT_EQ(info.snap_minors[255], 344u);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(DeviceList, RefusesOtherKinds) {
  load_with_partition(sim);
  std::vector<u32> minors;
  for (u32 type : {0u, 3u, 0xffffffffu}) {
    sim.log().clear();
    EXPECT_EQ(list_devices(sim, type, &minors), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_get_device_list_node(): Invalid device type 0x", 3), 1);
  }
  EXPECT_TRUE(sim.log().contains("Invalid device type 0xffffffff passed as input."));
  list_devices(sim, 3, &minors);
  EXPECT_TRUE(sim.log().contains("Invalid device type 0x03 passed as input."));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, ShowsAFilterNode) {
  load_with_partition(sim, {.debug = 2});
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3);
  std::strcpy(record.name, "root volume");
  ASSERT_EQ(add_filter(sim, record), 0);
  hang_snap(filter_at(3), 9);
  hang_snap(filter_at(3), 5);
  ASSERT_EQ(start_node(sim, 3), 0);
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), 0);
  snbf_info info;
  std::memset(&info, 0xa5, sizeof(info));
  info.minor = 3;
  ASSERT_EQ(sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)), 0);
  EXPECT_TRUE(sim.log().contains("snbf_ioctl_get_info(): Getting info on snbf(100, 3)"));
  EXPECT_EQ(info.minor, 3u);
  EXPECT_EQ(info.dev_type, 1u);
  EXPECT_EQ(info.dev_size, 16u << 20);
  EXPECT_EQ(info.started, 1u);
  EXPECT_EQ(info.use_cnt, 1u);
  EXPECT_STREQ(info.uuid, record.uuid);
  EXPECT_STREQ(info.name, "root volume");
  EXPECT_STREQ(info.hdd_name, "/dev/sda1");
  EXPECT_EQ(info.extent_size, 65536u);
  EXPECT_EQ(info.extent_cnt, 256u);
  EXPECT_EQ(info.snap_cnt, 2u);
  EXPECT_EQ(info.snap_minors[0], 9u);
  EXPECT_EQ(info.snap_minors[1], 5u);
  EXPECT_EQ(info.snap_minors[2], 0xa5a5a5a5u);
  EXPECT_EQ(info.incr_bmp_size, 32u);
  EXPECT_EQ(info.diff_bmp_size, 32u);
  EXPECT_STREQ(info.incr_bmp_fname, "/var/bmp/snbf3.incr");
  EXPECT_STREQ(info.diff_bmp_fname, "/var/bmp/snbf3.diff");
  EXPECT_EQ(info.name[127], '\0');
  EXPECT_EQ(info.hdd_name[1023], '\0');
  EXPECT_EQ(info.diff_bmp_fname[1023], '\0');
  // What belongs to snaps stays as the caller passed it.
  EXPECT_EQ(info.snap_valid, 0xa5a5a5a5u);
  EXPECT_EQ(info.chunk_cnt, 0xa5a5a5a5u);
  EXPECT_EQ(static_cast<u8>(info.cow_data_fname[1023]), 0xa5);
  ASSERT_EQ(sim.close_node(&node), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, JudgesTheBitmapsOverTheirExtentsAlone) {
  load_with_partition(sim);
  sim.add_device({.name = "p33", .bytes = 33 * 4096});
  snbf_filter_node_cmd record = filter_record("/dev/p33", 1, 4096);
  ASSERT_EQ(add_filter(sim, record), 0);
  const auto expect = [&](Bytes bits, u32 empty, u32 full) {
    set_incr(sim, 1, bits);
    const snbf_info info = info_of(sim, 1);
    EXPECT_EQ(info.incr_bmp_empty, empty);
    EXPECT_EQ(info.incr_bmp_full, full);
    EXPECT_EQ(info.diff_bmp_empty, 0u);
    EXPECT_EQ(info.diff_bmp_full, 1u);
  };
  expect({0, 0, 0, 0, 0}, 1, 0);
  expect({0, 0, 0, 0, 1}, 0, 0);     // bit 32 alone
  expect({0, 0, 0, 0, 0xfe}, 1, 0);  // beyond the last extent
  expect({0xff, 0xff, 0xff, 0xff, 0xff}, 0, 1);
  expect({0xff, 0xff, 0xff, 0xff, 0x01}, 0, 1);
  expect({0xff, 0xff, 0xff, 0xff, 0xfe}, 0, 0);
  expect({0x7f, 0xff, 0xff, 0xff, 0x01}, 0, 0);
  expect({0, 0, 0, 0x80, 0}, 0, 0);  // bit 31 alone
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, LeavesTheFlagsOfABitmapThatIsNotThere) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  FilterNode& filter = *filter_at(3);
  u32* const incr_bmp = filter.incr_bmp;
  filter.incr_bmp = nullptr;
  snbf_info info = {};
  info.incr_bmp_empty = info.incr_bmp_full = 77;
  EXPECT_EQ(snbf_ioctl_get_info(filter, info), 0);
  EXPECT_EQ(info.incr_bmp_empty, 77u);
  EXPECT_EQ(info.incr_bmp_full, 77u);
  EXPECT_EQ(info.diff_bmp_full, 1u);
  filter.incr_bmp = incr_bmp;
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, ShowsASnap) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* snap = hang_snap(filter_at(3), 9);
  snap->snap_valid.store(1);
  snap->stop_pending.store(1);
  snap->chunk_size = 4096;
  snap->chunk_cnt = (u64{5} << 32) + 6;
  snap->cow_bmp_size = 512;
  snap->cow_data_size = u64{1} << 41;
  std::memset(snap->cow_bmp_fname, 'b', sizeof(snap->cow_bmp_fname));
  std::strcpy(snap->cow_data_fname, "/cow/9.data");
  snbf_info info;
  std::memset(&info, 0xa5, sizeof(info));
  info.minor = 9;
  ASSERT_EQ(sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)), 0);
  EXPECT_EQ(info.dev_type, 2u);
  EXPECT_EQ(info.dev_size, 16u << 20);
  EXPECT_EQ(info.snap_valid, 1u);
  EXPECT_EQ(info.stop_pending, 1u);
  EXPECT_EQ(info.del_pending, 0u);
  EXPECT_EQ(info.chunk_size, 4096u);
  EXPECT_EQ(info.chunk_cnt, 6u);
  EXPECT_EQ(info.cow_bmp_size, 512u);
  EXPECT_EQ(info.cow_data_size, u64{1} << 41);
  EXPECT_EQ(std::string(info.cow_bmp_fname), std::string(1023, 'b'));
  EXPECT_STREQ(info.cow_data_fname, "/cow/9.data");
  EXPECT_EQ(info.extent_cnt, 0xa5a5a5a5u);
  std::strcpy(snap->cow_bmp_fname, "");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, ADetachedSnapIsRefusedAndTheRecordStays) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* snap = hang_snap(filter_at(3), 9);
  FilterNode* const filter = snap->filter_node;
  snap->filter_node = nullptr;
  snbf_info info;
  std::memset(&info, 0xa5, sizeof(info));
  info.minor = 9;
  const snbf_info before = info;
  EXPECT_EQ(sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)), -EINVAL);
  EXPECT_EQ(std::memcmp(&info, &before, sizeof(info)), 0);
  EXPECT_EQ(sim.log().count("snbf_ioctl_get_info(): Snap device snbf(100, 9) is not attached to a "
                            "filter device.",
                            3),
            1);
  snap->filter_node = filter;
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, OfANodeOfNoKnownKindSaysWhatAllKindsHave) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  SnapNode* snap = hang_snap(filter_at(3), 9);
  snap->dev_type = 7;
  std::strcpy(snap->name, "neither");
  const snbf_info info = info_of(sim, 9);
  EXPECT_EQ(info.dev_type, 7u);
  EXPECT_STREQ(info.name, "neither");
  EXPECT_EQ(info.dev_size, 0u);
  snap->dev_type = kSnapNode;
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Info, RefusesMinorsWithoutANode) {
  load_with_partition(sim);
  for (u32 minor : {0u, 255u, 256u}) {
    snbf_info info = {};
    info.minor = minor;
    EXPECT_EQ(sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)), -EINVAL);
  }
  EXPECT_EQ(sim.log().count("snbf_char_ioctl(): Invalid SNBF minor=", 3), 3);
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
