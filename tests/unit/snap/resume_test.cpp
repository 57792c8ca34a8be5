// A snap goes on from the files that an earlier run left behind.
#include "snap_bench.h"

namespace snbf::sim {
namespace {

// Chunk 1 copied, chunk 2 not; stopped, nothing written since.
void stopped_snap(SnapBench& bench) {
  ASSERT_EQ(bench.write(1, 0x11), 0);
  ASSERT_EQ(bench.write(2, 0x22), 0);
  bench.add_started(7);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  ASSERT_EQ(stop_node(bench.sim, 7), 0);
  bench.sim.log().clear();
}

SIM_TEST(ResumeSnap, GoesOnWithTheImage) {
  SnapBench bench(sim);
  stopped_snap(bench);
  ASSERT_EQ(bench.resume(7), 0);
  EXPECT_EQ(sim.log().count("snbf_ioctl_resume_snap(): Resuming snap snbf(100, 7)"), 1);
  EXPECT_EQ(sim.log().count("snbf_ioctl_resume_snap(): snbf(100, 7) has been resumed successfully"),
            1);
  EXPECT_EQ(info_of(sim, 7).started, 1u);
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  EXPECT_EQ(bench.read(7, 2), 0x22);
  ASSERT_EQ(bench.write(2, 0x88), 0);
  ASSERT_EQ(bench.write(1, 0x77), 0);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  EXPECT_EQ(bench.read(7, 2), 0x22);
  bench.expect_table(0);
}

SIM_TEST(ResumeSnap, GoesOnAfterARestartOfTheDriver) {
  SnapBench bench(sim);
  stopped_snap(bench);
  ASSERT_EQ(sim.unload_driver(), 0);
  ASSERT_EQ(sim.load_driver({.debug = 4}), 0);
  ASSERT_EQ(add_filter(sim, "/dev/sda1", static_cast<int>(kOrigin)), 0);
  ASSERT_EQ(bench.add(7), 0);
  ASSERT_EQ(bench.resume(7), 0);
  EXPECT_EQ(info_of(sim, kOrigin).started, 1u) << "the filter is started with its snap";
  EXPECT_EQ(sim.log().count("snbf_cowthread_start(): Successfully started COW thread kcowd. pid="),
            1);
  ASSERT_EQ(bench.write(2, 0x88), 0);
  EXPECT_EQ(bench.read(7, 1), 0x11);
  EXPECT_EQ(bench.read(7, 2), 0x22);
}

// Kept: these three refusals return with the table read-locked.
SIM_TEST(ResumeSnap, RefusalsLeaveTheTableLocked) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.add(7), 0);
  ASSERT_EQ(start_node(sim, 7), 0);

  for (const u32 minor : {9u, 255u, 256u, 0xffffffffu}) {
    sim.log().clear();
    EXPECT_EQ(bench.resume(minor), -EINVAL);
    EXPECT_EQ(bench.errors("snbf_ioctl_resume_snap(): Nothing is known about snbf(100, " +
                           std::to_string(static_cast<int>(minor)) + ")"),
              1);
    bench.expect_table(1);
    snbf_blkdev_rwlock.read_unlock();
  }
  EXPECT_EQ(bench.resume(kOrigin), -EINVAL);
  EXPECT_EQ(bench.errors("snbf_ioctl_resume_snap(): snbf(100, 3) is not a snap device"), 1);
  bench.expect_table(1);
  snbf_blkdev_rwlock.read_unlock();

  EXPECT_EQ(bench.resume(7), -EALREADY);
  EXPECT_EQ(
      bench.errors(
          "snbf_ioctl_resume_snap(): Can't resume snap snbf(100, 7): it's been started already."),
      1);
  bench.expect_table(1);
  snbf_blkdev_rwlock.read_unlock();
  EXPECT_EQ(info_of(sim, 7).snap_valid, 1u);
}

SIM_TEST(ResumeSnap, AnInvalidOneIsStartedButRefusesReadsAndIsNotCopiedFor) {
  SnapBench bench(sim);
  stopped_snap(bench);
  ASSERT_EQ(bench.resume(7, 0), 0);
  EXPECT_EQ(info_of(sim, 7).started, 1u);
  EXPECT_EQ(info_of(sim, 7).snap_valid, 0u);
  sim.log().clear();
  EXPECT_EQ(bench.read(7, 2), -EIO);
  EXPECT_EQ(bench.errors("snbf_make_request(): I/O request for snbf(100, 7), which is in "
                         "STOP_PENDING state or INVALID."),
            1);
  ASSERT_EQ(bench.write(2, 0x88), 0);
  EXPECT_FALSE(sim.log().contains("COWing"));
}

SIM_TEST(ResumeSnap, TakesTheFlagsOfTheRecord) {
  SnapBench bench(sim);
  stopped_snap(bench);
  ASSERT_EQ(bench.resume(7, 1, 1, 1), 0);
  const snbf_info info = info_of(sim, 7);
  EXPECT_EQ(info.snap_valid, 1u);
  EXPECT_EQ(info.stop_pending, 1u);
  EXPECT_EQ(info.del_pending, 1u);
  EXPECT_EQ(bench.read(7, 1), -EIO);
}

SIM_TEST(ResumeSnap, WithoutItsFilesItStaysStopped) {
  SnapBench bench(sim);
  stopped_snap(bench);
  ASSERT_EQ(sim.unlink(bench.bmp_file(7)), 0);
  EXPECT_EQ(bench.resume(7), -EIO);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  EXPECT_EQ(bench.snap(7)->cow_data_file, nullptr);
  EXPECT_EQ(bench.snap(7)->cow_bmp_file, nullptr);
  EXPECT_EQ(bench.snap(7)->cow_bmp.pages, nullptr);
  bench.expect_table(0);
  EXPECT_FALSE(bench.snap(7)->node_mutex.is_mine());
  ASSERT_EQ(sim.unlink(bench.data_file(7)), 0);
  EXPECT_EQ(bench.resume(7), -EIO);
  EXPECT_FALSE(sim.exists(bench.data_file(7))) << "a resume makes no file";
  EXPECT_EQ(info_of(sim, 7).started, 0u);
}

// What was cut off when the snap was invalidated, or never became whole, is no image.
SIM_TEST(ResumeSnap, RefusesFilesThatAreTooShort) {
  SnapBench bench(sim);
  stopped_snap(bench);
  const Bytes data = bench.file(bench.data_file(7));
  const Bytes bmp = bench.file(bench.bmp_file(7));
  ASSERT_EQ(data.size(), std::size_t{1 << 20});
  ASSERT_EQ(bmp.size(), 32u);
  ASSERT_EQ(sim.unlink(bench.data_file(7)), 0);
  ASSERT_EQ(sim.write_file(bench.data_file(7), Bytes(data.begin(), data.end() - 1)), 0);
  EXPECT_LT(bench.resume(7), 0);
  ASSERT_EQ(sim.unlink(bench.data_file(7)), 0);
  ASSERT_EQ(sim.write_file(bench.data_file(7), data), 0);
  ASSERT_EQ(sim.unlink(bench.bmp_file(7)), 0);
  ASSERT_EQ(sim.write_file(bench.bmp_file(7), Bytes(bmp.begin(), bmp.end() - 1)), 0);
  EXPECT_LT(bench.resume(7), 0);
  EXPECT_EQ(info_of(sim, 7).started, 0u);
  ASSERT_EQ(sim.unlink(bench.bmp_file(7)), 0);
  ASSERT_EQ(sim.write_file(bench.bmp_file(7), bmp), 0);
  EXPECT_EQ(bench.resume(7), 0);
  EXPECT_EQ(bench.read(7, 1), 0x11);
}

SIM_TEST_SEEDS(ResumeSnap, LeavesNothingWhicheverStepFails, 2) {
  SnapBench bench(sim);
  stopped_snap(bench);
  for (const Fault fault : {Fault::Heap, Fault::Virt, Fault::FileOpen, Fault::FileRead}) {
    for (int nth = 1; fails_at(sim, fault, nth,
                               [&] {
                                 const int rc = bench.resume(7);
                                 sim.clear_faults();
                                 if (rc == 0) {
                                   EXPECT_EQ(bench.read(7, 1), 0x11);
                                   EXPECT_EQ(stop_node(sim, 7), 0);
                                   return;
                                 }
                                 EXPECT_EQ(info_of(sim, 7).started, 0u);
                                 EXPECT_EQ(bench.snap(7)->cow_data_file, nullptr);
                                 EXPECT_EQ(bench.snap(7)->cow_bmp_file, nullptr);
                                 bench.expect_table(0);
                               });
         ++nth) {
    }
  }
  EXPECT_EQ(bench.resume(7), 0);
}

// An image that is broken takes those along that read its copies.
SIM_TEST(ResumeSnap, NoOlderOneOutlivesAnInvalidNewerOne) {
  SnapBench bench(sim);
  ASSERT_EQ(bench.write(1, 0x11), 0);
  bench.add_started(7);
  bench.add_started(8);
  ASSERT_EQ(stop_node(sim, 7), 0);
  ASSERT_EQ(stop_node(sim, 8), 0);
  ASSERT_EQ(bench.resume(7, 1), 0);
  ASSERT_EQ(bench.resume(8, 0), 0);
  ASSERT_EQ(bench.write(1, 0x99), 0);
  const int found = bench.read(7, 1);
  EXPECT_TRUE(found == 0x11 || found == -EIO) << found;
}

}  // namespace
}  // namespace snbf::sim
