#include <cstring>
#include <vector>

#include "driver_rig.h"

namespace snbf::sim {
namespace {

struct Known {
  unsigned number;
  const char* name;
};

constexpr Known kAll[] = {
    {0xc8b04301, "SNBF_ADD_FILTER_NODE"},   {0xc8b44302, "SNBF_ADD_SNAP_NODE"},
    {0x40044303, "SNBF_DEL_NODE"},          {0x40044304, "SNBF_START_NODE"},
    {0x40044305, "SNBF_STOP_NODE"},         {0xc4084306, "SNBF_GET_DEVICE_LIST"},
    {0xd9084307, "SNBF_GET_INFO"},          {0x40084308, "SNBF_LOAD_BMP"},
    {0x40084309, "SNBF_SAVE_BMP"},          {0x4008430a, "SNBF_CLR_BMP"},
    {0x4018430b, "SNBF_SET_BMP"},           {0x4018430c, "SNBF_MERGE_BMP"},
    {0xc018430d, "SNBF_GET_BMP"},           {0xc018430e, "SNBF_GET_AND_CLR_BMP"},
    {0xc018430f, "SNBF_GET_DATABLOCK_BMP"}, {0x44004310, "SNBF_TEST_DATABLOCK"},
    {0x40104311, "SNBF_RESUME_SNAP"},
};
constexpr unsigned kNodeBound[] = {0xd9084307, 0x40084308, 0x40084309, 0x4008430a, 0x4018430b,
                                   0x4018430c, 0xc018430d, 0xc018430e, 0xc018430f};

unsigned record_bytes(unsigned number) { return number >> 16 & 0x3fff; }

// A record of zeros but for its first word.
std::vector<u8> record_for(unsigned number, u32 first) {
  std::vector<u8> record(record_bytes(number));
  std::memcpy(record.data(), &first, sizeof(first));
  return record;
}

int send(Sim& sim, unsigned number, u32 first) {
  std::vector<u8> record = record_for(number, first);
  return sim.ioctl(number, record.data(), record.size());
}

SIM_TEST(Envelope, NamesEveryCommandAndRoutesIt) {
  load_with_partition(sim, {.debug = 2});
  for (const Known& known : kAll) {
    sim.log().clear();
    send(sim, known.number, 0);
    char line[128];
    std::snprintf(line, sizeof(line), "snbf_char_ioctl(): cmd=0x%02x (%s)", known.number,
                  known.name);
    EXPECT_EQ(sim.log().count(line, 6), 1) << sim.log().dump();
    EXPECT_EQ(sim.log().count("Inappropriate ioctl"), 0) << known.name;
    if (known.number == SNBF_RESUME_SNAP) snbf_blkdev_rwlock.read_unlock();  // a refusal keeps it
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, AForeignTypeIsRefusedWithTheTraceLineAlone) {
  load_with_partition(sim, {.debug = 2});
  sim.log().clear();
  EXPECT_EQ(send(sim, 0xc8b04401, 0), -ENOTTY);
  ASSERT_EQ(sim.log().lines().size(), 1u);
  EXPECT_TRUE(sim.log().contains("snbf_char_ioctl(): cmd=0xc8b04401 (UNKNOWN)"));
  // The type is judged before the address.
  EXPECT_EQ(sim.ioctl_at(0xc8b04401, ~u64{0} - 8), -ENOTTY);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, AnUnknownNumberIsRefusedByName) {
  load_with_partition(sim, {.debug = 1});
  EXPECT_EQ(send(sim, 0x40044312, 0), -ENOTTY);
  EXPECT_EQ(sim.log().count("snbf_char_ioctl(): Inappropriate ioctl cmd=1074021138", 3), 1);
  // A known number with another size or direction is another command.
  EXPECT_EQ(send(sim, 0x40084303, 0), -ENOTTY);
  EXPECT_EQ(send(sim, 0xc0044303, 0), -ENOTTY);
  // One without an argument has no address to judge.
  EXPECT_EQ(sim.ioctl_at(0x00004303, ~u64{0}), -ENOTTY);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, AnAddressOutsideOfTheCallersSpaceIsRefusedInSilence) {
  load_with_partition(sim, {.debug = 1});
  sim.log().clear();
  for (const Known& known : kAll) {
    EXPECT_EQ(sim.ioctl_at(known.number, ~u64{0} - 2), -EFAULT) << known.name;
    EXPECT_EQ(sim.ioctl_at(known.number, 0xffff'8000'0000'0000), -EFAULT) << known.name;
  }
  // Judged before the number is.
  EXPECT_EQ(sim.ioctl_at(0x40044312, ~u64{0} - 2), -EFAULT);
  EXPECT_TRUE(sim.log().lines().empty()) << sim.log().dump();
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, ARecordThatCannotBeReadIsRefused) {
  load_with_partition(sim, {.debug = 1});
  for (const Known& known : kAll) {
    sim.log().clear();
    EXPECT_EQ(sim.ioctl_at(known.number, Sim::kBadUserAddress), -EFAULT) << known.name;
    EXPECT_EQ(sim.log().count("snbf_char_ioctl(): copy_from_user() failed.", 3), 1);
    EXPECT_EQ(sim.log().lines().size(), 1u);
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, ARecordThatCannotBeWrittenBackIsRefused) {
  load_with_partition(sim, {.debug = 1});
  snbf_device_list list = {};
  list.dev_type = SNBF_DEV_FILTER;
  UserBuffer buffer = sim.user_copy(list);
  buffer.make_read_only();
  sim.log().clear();
  EXPECT_EQ(sim.ioctl_at(SNBF_GET_DEVICE_LIST, buffer.address()), -EFAULT);
  EXPECT_EQ(sim.log().count("snbf_char_ioctl(): copy_from_user() failed.", 3), 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, NoMemoryForTheRecordIsAnsweredAsABadAddress) {
  load_with_partition(sim, {.debug = 1});
  for (const Known& known : kAll) {
    sim.log().clear();
    sim.fail_nth(Fault::Heap, 1);
    EXPECT_EQ(send(sim, known.number, 0), -EFAULT) << known.name;
    EXPECT_EQ(sim.log().count("snbf_char_ioctl(): Memory allocation failed.", 3), 1);
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, AMinorWithoutANodeIsRefused) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  for (unsigned number : kNodeBound) {
    for (u32 minor : {0u, 255u, 256u, 0x7fffffffu, 0xffffffffu}) {
      sim.log().clear();
      EXPECT_EQ(send(sim, number, minor), -EINVAL);
      const std::string line =
          "snbf_char_ioctl(): Invalid SNBF minor=" + std::to_string(static_cast<int>(minor));
      EXPECT_EQ(sim.log().count(line, 3), 1) << sim.log().dump();
    }
  }
  EXPECT_EQ(snbf_blkdev_rwlock.count(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Envelope, AFailedCommandLeavesTheCallersRecordAlone) {
  load_with_partition(sim, {.debug = 1});
  snbf_device_list list = {};
  list.dev_type = 3;
  list.count = 77;
  EXPECT_EQ(sim.ioctl(SNBF_GET_DEVICE_LIST, &list, sizeof(list)), -EINVAL);
  EXPECT_EQ(list.count, 77u);

  // This one fails after the handler has filled the record.
  snbf_filter_node_cmd record = filter_record("/dev/sda1", -1);
  const snbf_filter_node_cmd before = record;
  sim.fail_nth(Fault::DiskAlloc, 1);
  EXPECT_EQ(add_filter(sim, record), -ENOMEM);
  EXPECT_EQ(std::memcmp(&record, &before, sizeof(record)), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

// The node that a command works on cannot go meanwhile: the deletion waits for it.
SIM_TEST_SEEDS(Envelope, KeepsTheNodeWhileItsHandlerRuns, 40) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  sim.spawn("reader", [&] {
    for (int i = 0; i < 10; ++i) {
      snbf_info info = {};
      info.minor = 3;
      const int rc = sim.ioctl(SNBF_GET_INFO, &info, sizeof(info));
      EXPECT_TRUE(rc == 0 || rc == -EINVAL) << rc;
      if (rc == 0) {
        EXPECT_STREQ(info.hdd_name, "/dev/sda1");
      }
    }
  });
  sim.spawn("saver", [&] {
    for (int i = 0; i < 3; ++i) {
      snbf_bmp_sel select{3, SNBF_BMP_INCR};
      sim.ioctl(SNBF_SAVE_BMP, &select, sizeof(select));
    }
  });
  sim.spawn("deleter", [&] { EXPECT_EQ(delete_node(sim, 3), 0); });
  sim.join_all();
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
