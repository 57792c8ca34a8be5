#include "core/module.h"

#include <string>

#include "core/log.h"
#include "driver_rig.h"

namespace snbf::sim {
namespace {

SIM_TEST(ModuleLoad, SaysWhatItIsAndHowItWent) {
  ASSERT_EQ(sim.load_driver(), 0);
  const auto& lines = sim.log().lines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_NE(lines[0].text.find("snbf_init(): Initializing the driver."), std::string::npos);
  EXPECT_NE(lines[1].text.find("snbf_init(): Built: "), std::string::npos);
  EXPECT_NE(lines[2].text.find("snbf_init(): UTS_RELEASE: "), std::string::npos);
  EXPECT_NE(lines.back().text.find("snbf_init(): rc=0"), std::string::npos);
  EXPECT_EQ(sim.control_major(), 100);
  EXPECT_TRUE(sim.proc_exists("/proc/snbf/debug"));
  EXPECT_FALSE(sim.log().has_errors());
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_EQ(sim.control_major(), -1);
  EXPECT_FALSE(sim.proc_exists("/proc/snbf"));
}

SIM_TEST(ModuleLoad, BringsItsServicesUpInOrder) {
  ASSERT_EQ(sim.load_driver({.debug = 2}), 0);
  const std::string log = sim.log().dump();
  const std::string steps[] = {"snbf_create_proc(): Creating /proc/snbf filesystem",
                               "snbf_char_init(): Initializing character device",
                               "snbf_char_init(): snbf_chr_major=100",
                               "snbf_block_init(): Initializing block device",
                               "snbf_block_init(): snbf_blk_major=100",
                               "snbf_start_kdirtyd(): Starting kdirtyd",
                               "snbf_init(): rc=0"};
  std::size_t at = 0;
  for (const std::string& step : steps) {
    at = log.find(step, at);
    ASSERT_NE(at, std::string::npos) << step << " is missing or out of order in\n" << log;
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ModuleLoad, ANegativeHighestMinorIsRefused) {
  EXPECT_EQ(sim.load_driver({.max_blk_minor = -1}), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_init(): Invalid snbf_max_blk_minor=-1.", 3), 1);
  EXPECT_TRUE(sim.log().contains("snbf_init(): rc=-22"));
  EXPECT_EQ(snbf_debug_buffer, nullptr);
}

SIM_TEST(ModuleLoad, AHighestMinorOfZeroIsATableOfOne) {
  ASSERT_EQ(sim.load_driver({.max_blk_minor = 0}), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ModuleLoad, MajorsOfZeroAreReplacedByThoseGranted) {
  ASSERT_EQ(sim.load_driver({.chr_major = 0, .debug = 2, .blk_major = 0}), 0);
  EXPECT_GT(snbf_chr_major, 0);
  EXPECT_GT(snbf_blk_major, 0);
  EXPECT_EQ(sim.proc("/proc/snbf/chr_major"), std::to_string(snbf_chr_major) + "\n");
  EXPECT_EQ(sim.proc("/proc/snbf/blk_major"), std::to_string(snbf_blk_major) + "\n");
  EXPECT_TRUE(sim.log().contains("snbf_chr_major=" + std::to_string(snbf_chr_major)));
  EXPECT_TRUE(sim.log().contains("snbf_blk_major=" + std::to_string(snbf_blk_major)));
  ASSERT_EQ(sim.unload_driver(), 0);
}

// load_driver ends the run if a failed load leaves anything behind.
void expect_failed_load(Sim& sim, int error, const std::string& message) {
  sim.log().clear();
  EXPECT_EQ(sim.load_driver(), error);
  EXPECT_EQ(sim.log().count(message, 3), 1) << sim.log().dump();
  EXPECT_NE(sim.log().last().find("snbf_init(): rc=" + std::to_string(error)), std::string::npos);
  EXPECT_EQ(sim.control_major(), -1);
  EXPECT_FALSE(sim.proc_exists("/proc/snbf"));
  EXPECT_EQ(snbf_debug_buffer, nullptr);
}

SIM_TEST(ModuleLoad, AFailingStepUnwindsTheEarlierOnes) {
  sim.fail_nth(Fault::ProcCreate, 1);
  expect_failed_load(sim, -EINVAL, "snbf_create_proc(): Failed to create /proc/snbf directory.");
  sim.fail_nth(Fault::ProcCreate, 2);
  expect_failed_load(sim, -EINVAL, "snbf_create_proc(): Failed to create /proc/snbf/chr_major.");
  sim.fail_nth(Fault::ProcCreate, 3);
  expect_failed_load(sim, -EINVAL, "snbf_create_proc(): Failed to create /proc/snbf/blk_major.");
  sim.fail_nth(Fault::ProcCreate, 4);
  expect_failed_load(sim, -EINVAL, "snbf_create_proc(): Failed to create /proc/snbf/debug.");
  sim.fail_nth(Fault::ChrdevRegister, 1, -EBUSY);
  expect_failed_load(sim, -EBUSY, "snbf_char_init(): Failed to register character device: rc=-16.");
  sim.fail_nth(Fault::BlkdevRegister, 1, -EBUSY);
  expect_failed_load(sim, -EBUSY, "snbf_block_init(): Failed to register block device: rc=-16.");
  sim.fail_nth(Fault::Virt, 1);
  expect_failed_load(sim, -ENOMEM, "snbf_block_init(): Memory allocation failed.");
  sim.fail_nth(Fault::ThreadStart, 1, -EAGAIN);
  expect_failed_load(sim, -EAGAIN, "snbf_start_kdirtyd(): Failed to start kdirtyd: rc=-11");
  sim.clear_faults();
  ASSERT_EQ(sim.load_driver(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ModuleLoad, LeavesNothingWhicheverAllocationFails) {
  for (int nth = 1; fails_at(sim, Fault::AnyAllocation, nth,
                             [&] {
                               const int rc = sim.load_driver();
                               if (rc == 0) {
                                 EXPECT_EQ(sim.unload_driver(), 0);
                               } else {
                                 EXPECT_TRUE(rc == -ENOMEM || rc == -EINVAL) << rc;
                               }
                             });
       ++nth) {
  }
}

SIM_TEST(ModuleLoad, FailsWithoutMemoryForTheLog) {
  sim.fail_always(Fault::Heap);
  EXPECT_EQ(sim.load_driver(), -ENOMEM);
  EXPECT_TRUE(sim.log().contains("snbf_init(): rc=-12"));
  sim.clear_faults();
}

SIM_TEST(ModuleUnload, TakesEveryNodeDown) {
  load_with_partition(sim);
  sim.add_device({.name = "sdb1", .bytes = 1 << 20});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sdb1", 255), 0);
  ASSERT_EQ(start_node(sim, 0), 0);
  ASSERT_EQ(start_node(sim, 255), 0);
  sim.log().clear();
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_TRUE(sim.log().contains("snbf_cleanup(): The driver is being unloaded."));
  EXPECT_TRUE(sim.log().contains("snbf(100, 0) has been stopped successfully"));
  EXPECT_TRUE(sim.log().contains("snbf(100, 255) has been destroyed successfully"));
  EXPECT_TRUE(sim.log().contains("snbf_block_destroy(): Unregistering block device driver"));
  EXPECT_FALSE(sim.exists("/dev/snbf/snbf0"));
}

SIM_TEST(ModuleUnload, APassStopsAtTheFirstStepThatFails) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  filter_at(3)->use_cnt.store(1);
  sim.log().clear();
  snbf_cleanup();
  EXPECT_EQ(sim.log().count("snbf(100, 3) is still being used.", 3), 1);
  EXPECT_FALSE(sim.log().contains("Destroying all minor nodes"));
  EXPECT_EQ(sim.control_major(), 100);
  EXPECT_TRUE(sim.proc_exists("/proc/snbf/snbf3"));
  EXPECT_NE(snbf_debug_buffer, nullptr);
  filter_at(3)->use_cnt.store(0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ModuleUnload, TriesAgainUntilEverythingIsGone) {
  load_with_partition(sim);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  filter_at(3)->use_cnt.store(1);
  sim.spawn("late closer", [&] {
    sim.sleep_us(250'000);
    filter_at(3)->use_cnt.store(0);
  });
  sim.log().clear();
  const u64 before = sim.now_us();
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_GE(sim.now_us() - before, 250'000u);
  EXPECT_GE(sim.log().count("snbf_cleanup(): The driver is being unloaded."), 3);
  EXPECT_EQ(sim.control_major(), -1);
}

}  // namespace
}  // namespace snbf::sim
