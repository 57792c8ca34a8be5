#include "control/chardev.h"

#include "core/log.h"
#include "driver_rig.h"

namespace snbf::sim {
namespace {

SIM_TEST(ControlDevice, OpensClosesAndReadsAndWritesNothing) {
  ASSERT_EQ(sim.load_driver(), 0);
  int error = -1;
  void* file = sim.open_control(&error);
  ASSERT_EQ(error, 0);
  UserBuffer buffer = sim.user(16);
  EXPECT_EQ(sim.control_read(file, buffer.address(), 16), 0);
  EXPECT_EQ(sim.control_write(file, buffer.address(), 16), 0);
  EXPECT_EQ(sim.close_control(file), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ControlDevice, KeepsTheModuleWhileItIsOpen) {
  ASSERT_EQ(sim.load_driver(), 0);
  int error = -1;
  void* file = sim.open_control(&error);
  ASSERT_EQ(error, 0);
  EXPECT_NE(sim.unload_driver(), 0);
  EXPECT_EQ(sim.close_control(file), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ControlDevice, UnregistersOnlyOnce) {
  sim.use_driver();
  snbf_chr_major = 100;
  snbf_debug = 2;
  ASSERT_EQ(snbf_char_init(), 0);
  EXPECT_EQ(sim.control_major(), 100);
  EXPECT_EQ(snbf_char_destroy(), 0);
  EXPECT_EQ(sim.control_major(), -1);
  EXPECT_EQ(snbf_char_destroy(), 0);
  EXPECT_EQ(sim.log().count("snbf_char_destroy(): Unregistering character device driver"), 1);
  snbf_debug_destroy();
}

SIM_TEST(ControlDevice, AMajorOfZeroBecomesTheOneGranted) {
  sim.use_driver();
  snbf_chr_major = 0;
  snbf_debug = 2;
  ASSERT_EQ(snbf_char_init(), 0);
  EXPECT_GT(snbf_chr_major, 0);
  EXPECT_EQ(sim.control_major(), snbf_chr_major);
  EXPECT_TRUE(
      sim.log().contains("snbf_char_init(): snbf_chr_major=" + std::to_string(snbf_chr_major)));
  EXPECT_EQ(snbf_char_destroy(), 0);
  snbf_debug_destroy();
}

SIM_TEST(ControlDevice, ARefusedMajorIsAnsweredAndLogged) {
  sim.use_driver();
  snbf_chr_major = 100;
  sim.fail_nth(Fault::ChrdevRegister, 1, -EBUSY);
  EXPECT_EQ(snbf_char_init(), -EBUSY);
  EXPECT_EQ(sim.log().count("snbf_char_init(): Failed to register character device: rc=-16.", 3),
            1);
  EXPECT_EQ(snbf_char_destroy(), 0);
  snbf_debug_destroy();
}

}  // namespace
}  // namespace snbf::sim
