// SPDX-License-Identifier: GPL-2.0-only
// Snaps in the library, over a driver that the test plays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "played_snaps.h"
#include "snap_mount.h"

namespace snbf::played {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

TEST_F(Snaps, ASnapIsCreatedStartedAndRecorded) {
  ASSERT_EQ(create("monday"), 0);
  const snbf_info snap = driver_->info(made_.minor_used);
  EXPECT_EQ(snap.started, 1u);
  EXPECT_EQ(made_.minor_used, 254u) << "from the top, but never the highest";
  EXPECT_EQ(made_.chunk_size_used, kChunk);
  EXPECT_EQ(std::string(snap.cow_data_fname), dir_ + "/cow/monday.cow");
  libsnbf_snap_record record;
  ASSERT_EQ(libsnbf_snap_record_read(dir_.c_str(), "monday", &record), 0);
  EXPECT_STREQ(record.uuid, snap.uuid);
  EXPECT_STREQ(record.node_uuid, "{data}");
  EXPECT_EQ(record.stopped_clean, 0);
}

TEST_F(Snaps, ANameThatIsNotItsOwnIsRefused) {
  for (const char* bad : {"control", "snbf0", "snbf254", "a/b", ".x", ""}) {
    EXPECT_EQ(create(bad), -EILSEQ) << bad;
  }
  EXPECT_EQ(create("data"), -EEXIST);
  EXPECT_THAT(driver_->sent_, Not(Contains(SNBF_ADD_SNAP_NODE)));
  EXPECT_EQ(create("snbf"), 0);
  EXPECT_EQ(create("snbf"), -EEXIST);
}

TEST_F(Snaps, OneWhoseNameAnotherNodeHasTakenIsNotResumed) {
  two_snaps_stopped_with_their_node();
  driver_->add_filter(1, dir_);
  std::strcpy(driver_->node(1).name, "newer");
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost", "newer=name-taken"));
  EXPECT_EQ(resume(), 0u);
  EXPECT_THAT(driver_->sent_, Not(Contains(SNBF_RESUME_SNAP)));
}

TEST_F(Snaps, TheHighestMinorIsNoSnaps) {
  put("module/snbf/parameters/snbf_max_blk_minor", "2\n");
  ASSERT_EQ(create("one"), 0);
  EXPECT_EQ(made_.minor_used, 1u);
  EXPECT_EQ(create("two"), -ENOSPC);
}

TEST_F(Snaps, AnotherChunkSizeIsNeverSent) {
  ASSERT_EQ(create("one", 4096), 0);
  driver_->sent_.clear();
  EXPECT_EQ(create("two", 8192), -EDOM);
  EXPECT_THAT(driver_->sent_, Not(Contains(SNBF_ADD_SNAP_NODE)));
  EXPECT_EQ(create("two"), 0) << "none asked for: that of the others";
  EXPECT_EQ(made_.chunk_size_used, 4096u);
}

TEST_F(Snaps, TheSizeAskedForIsComparedAsTheDriverEnlargesIt) {
  driver_->node(0).dev_size = uint64_t{5} << 40;
  EXPECT_EQ(libsnbf_chunk_size_on(4096, uint64_t{4} << 40), 4096u);
  EXPECT_EQ(libsnbf_chunk_size_on(4096, (uint64_t{4} << 40) + 1), 8192u);
  ASSERT_EQ(create("one", 8192), 0);
  EXPECT_EQ(create("two", 4096), 0) << "it would become 8192";
  EXPECT_EQ(made_.chunk_size_used, 8192u);
  EXPECT_EQ(create("three", 16384), -EDOM);
}

TEST_F(Snaps, OneThatCannotBeStartedLeavesNothing) {
  driver_->refuse_[SNBF_START_NODE] = -EAGAIN;
  EXPECT_EQ(create("monday"), -EAGAIN);
  EXPECT_EQ(driver_->minor_of("monday"), UINT32_MAX);
  EXPECT_FALSE(there("monday.snap"));
}

TEST_F(Snaps, OneThatCannotBeAddedLeavesNothing) {
  driver_->refuse_[SNBF_ADD_SNAP_NODE] = -ENOMEM;
  EXPECT_EQ(create("monday"), -ENOMEM);
  EXPECT_FALSE(there("monday.snap"));
}

TEST_F(Snaps, ADeletedSnapLeavesNothing) {
  ASSERT_EQ(create("monday"), 0);
  EXPECT_EQ(remove("monday"), 0);
  EXPECT_FALSE(there("cow/monday.cow"));
  EXPECT_FALSE(there("monday.snap"));
}

TEST_F(Snaps, AnotherSnapOfTheSameMinorIsNotDeleted) {
  ASSERT_EQ(create("monday"), 0);
  int postponed = 0;
  const uint32_t minor = driver_->minor_of("monday");
  EXPECT_EQ(libsnbf_snap_delete(handle_, minor, "{gone}", &postponed), -ENOENT);
  EXPECT_TRUE(there("monday.snap"));
  EXPECT_EQ(remove("monday"), 0);
}

TEST_F(Snaps, ARefusedDeletionChangesNothing) {
  ASSERT_EQ(create("monday"), 0);
  driver_->refuse_[SNBF_DEL_NODE] = -EBUSY;
  EXPECT_EQ(remove("monday"), -EBUSY);
  libsnbf_snap_record record;
  ASSERT_EQ(libsnbf_snap_record_read(dir_.c_str(), "monday", &record), 0);
  EXPECT_EQ(record.deleting, 0);
}

TEST_F(Snaps, ADeletionThatWaitsIsSweptWithTheOlderOne) {
  int postponed = 0;
  ASSERT_EQ(create("older"), 0);
  ASSERT_EQ(create("newer"), 0);
  ASSERT_EQ(remove("newer", &postponed), 0);
  EXPECT_EQ(postponed, 1);
  EXPECT_TRUE(there("newer.snap")) << "its files are still there";
  ASSERT_EQ(remove("older", &postponed), 0);
  EXPECT_EQ(postponed, 0);
  EXPECT_FALSE(there("newer.snap"));
}

// The played driver comes back to no deletion, and ours not to that of a snap that was open in the moment.
TEST_F(Snaps, ADeletionThatAnOpeningPreventedIsCarriedOutWithTheNext) {
  int postponed = 0;
  ASSERT_EQ(create("older"), 0);
  ASSERT_EQ(create("newer"), 0);
  ASSERT_EQ(create("newest"), 0);
  ASSERT_EQ(remove("newer", &postponed), 0);
  const uint32_t newer = driver_->minor_of("newer");
  driver_->node(newer).use_cnt = 1;
  ASSERT_EQ(remove("older", &postponed), 0);
  EXPECT_EQ(driver_->minor_of("newer"), newer) << "somebody has it open";
  ASSERT_EQ(remove("newest", &postponed), 0);
  EXPECT_EQ(postponed, 1);
  driver_->node(newer).use_cnt = 0;
  ASSERT_EQ(create("last"), 0);
  ASSERT_EQ(remove("last", &postponed), 0);
  EXPECT_EQ(postponed, 0);
  for (const char* name : {"newer", "newest", "last"}) {
    EXPECT_FALSE(there(std::string(name) + ".snap")) << name;
    EXPECT_EQ(driver_->minor_of(name), UINT32_MAX) << name;
  }
}

TEST_F(Snaps, ALivingSnapIsNotDeletedWithAnother) {
  ASSERT_EQ(create("older"), 0);
  ASSERT_EQ(create("living"), 0);
  ASSERT_EQ(remove("older"), 0);
  EXPECT_EQ(driver_->info(driver_->minor_of("living")).started, 1u);
}

TEST_F(Snaps, WhatWasStoppedWithItsNodeComesBack) {
  two_snaps_stopped_with_their_node();
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
  EXPECT_EQ(resume(), 2u);
  EXPECT_THAT(driver_->resumed_,
              ElementsAre(driver_->minor_of("newer"), driver_->minor_of("older")))
      << "newest first: the older one's map is read through the newer one's files";
  EXPECT_GT(driver_->minor_of("older"), driver_->minor_of("newer")) << "created oldest first";
  EXPECT_THAT(judged(), ElementsAre("older=started", "newer=started"));
}

TEST_F(Snaps, ThatWhichOnlyStoppedDoesNotComeBackTwice) {
  two_snaps_stopped_with_their_node();
  EXPECT_EQ(resume(), 2u);
  driver_->restart();  // and no clean stop before it
  EXPECT_THAT(judged(),
              ElementsAre("older=not-stopped-with-its-node", "newer=not-stopped-with-its-node"));
  EXPECT_EQ(resume(), 0u);
}

TEST_F(Snaps, OneWhoseNodeWasStartedWithoutItIsDead) {
  two_snaps_stopped_with_their_node();
  ASSERT_EQ(libsnbf_start(handle_, 0), 0);
  EXPECT_THAT(judged(), ElementsAre("older=node-started", "newer=node-started"));
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  EXPECT_THAT(judged(), ElementsAre("older=node-started", "newer=node-started"))
      << "and stays so after the next stop";
  EXPECT_EQ(resume(), 0u);
  EXPECT_THAT(driver_->resumed_, IsEmpty());
}

TEST_F(Snaps, OneWhosePartitionWasWrittenIsDead) {
  two_snaps_stopped_with_their_node();
  driver_->bits_ = 0x5B;
  EXPECT_THAT(judged(), ElementsAre("older=written-since", "newer=written-since"));
  driver_->bits_ = 0x5A;
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
  put("hdd", std::string(kSize, 'x'));
  EXPECT_THAT(judged(), ElementsAre("older=written-since", "newer=written-since"));
}

TEST_F(Snaps, WithoutTheNewerOneTheOlderIsDead) {
  two_snaps_stopped_with_their_node();
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
  std::filesystem::resize_file(dir_ + "/cow/newer.cowmap", 1);
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost", "newer=files-missing"));
  ASSERT_EQ(libsnbf_snap_discard(handle_, 0, "newer"), 0);
  EXPECT_THAT(judged(), ElementsAre("older=not-stopped-with-its-node"));
  EXPECT_FALSE(there("cow/newer.cow"));
}

TEST_F(Snaps, WithoutTheOlderOneTheNewerLives) {
  two_snaps_stopped_with_their_node();
  ASSERT_EQ(libsnbf_snap_discard(handle_, 0, "older"), 0);
  EXPECT_THAT(judged(), ElementsAre("newer="));
  EXPECT_EQ(resume(), 1u);
}

TEST_F(Snaps, ALostSnapDoesNotComeBack) {
  ASSERT_EQ(create("older"), 0);
  driver_->node(made_.minor_used).snap_valid = 0;
  ASSERT_EQ(create("newer"), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  EXPECT_THAT(judged(), ElementsAre("older=not-stopped-with-its-node", "newer="));
  EXPECT_EQ(resume(), 1u) << "the nodes are still there";
}

TEST_F(Snaps, OneThatWasStoppedBeforeItsNodeIsDead) {
  ASSERT_EQ(create("monday"), 0);
  ASSERT_EQ(libsnbf_stop(handle_, made_.minor_used), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  EXPECT_THAT(judged(), ElementsAre("monday=not-stopped-with-its-node"))
      << "the node went on without it";
}

TEST_F(Snaps, APendingDeletionComesBackAsThat) {
  ASSERT_EQ(create("older"), 0);
  ASSERT_EQ(create("newer"), 0);
  int postponed = 0;
  ASSERT_EQ(remove("newer", &postponed), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  driver_->restart();
  EXPECT_EQ(resume(), 2u);
  const snbf_info newer = driver_->info(driver_->minor_of("newer"));
  EXPECT_EQ(newer.stop_pending, 1u);
  EXPECT_EQ(newer.del_pending, 1u);
}

TEST_F(Snaps, AWriteWhileTheyComeBackIsSeen) {
  two_snaps_stopped_with_their_node();
  put("dev/block/240:0/stat", "1 0 0 0 7 0 0 0\n");
  driver_->on_resume_ = [this] { put("dev/block/240:0/stat", "2 0 0 0 8 0 0 0\n"); };
  EXPECT_EQ(resume(-ESTALE), 0u);
  EXPECT_EQ(driver_->info(driver_->minor_of("older")).started, 0u);
  EXPECT_THAT(judged(),
              ElementsAre("older=not-stopped-with-its-node", "newer=not-stopped-with-its-node"));
}

TEST_F(Snaps, AReadWhileTheyComeBackIsNoHarm) {
  two_snaps_stopped_with_their_node();
  put("dev/block/240:0/stat", "1 0 0 0 7 0 0 0\n");
  driver_->on_resume_ = [this] { put("dev/block/240:0/stat", "9 0 0 0 7 0 0 0\n"); };
  EXPECT_EQ(resume(), 2u);
}

TEST_F(Snaps, OneThatIsGivenUpAsItComesBackIsNotSaidToBeBack) {
  two_snaps_stopped_with_their_node();
  driver_->on_resume_ = [this] {
    if (driver_->resumed_.size() == 2) driver_->node(driver_->resumed_.back()).snap_valid = 0;
  };
  EXPECT_EQ(resume(-ENODATA), 1u);
}

TEST_F(Snaps, AResumeThatFailsNeverDeletesFiles) {
  two_snaps_stopped_with_their_node();
  driver_->refuse_[SNBF_RESUME_SNAP] = -EIO;
  EXPECT_EQ(resume(-EIO), 0u);
  EXPECT_TRUE(there("cow/older.cow"));
  EXPECT_TRUE(there("cow/newer.cow"));
  EXPECT_THAT(driver_->sent_, Not(Contains(SNBF_DEL_NODE)));
}

TEST_F(Snaps, AStartThatWouldTruncateAnImageIsRefused) {
  ASSERT_EQ(create("monday"), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  driver_->sent_.clear();
  EXPECT_EQ(libsnbf_start(handle_, driver_->minor_of("monday")), -ENOTEMPTY);
  EXPECT_THAT(driver_->sent_, Not(Contains(SNBF_START_NODE)));
}

// What a record that cannot be read says may be what keeps an image whole.
TEST_F(Snaps, ARecordThatCannotBeReadIsNotPassedOver) {
  two_snaps_stopped_with_their_node();
  const auto ignore = [](void*, const libsnbf_snap_record*, const char*) {};
  uint32_t resumed = 0;
  std::filesystem::rename(dir_ + "/newer.snap", dir_ + "/kept");
  std::filesystem::create_symlink("/proc/self/mem", dir_ + "/newer.snap");
  EXPECT_EQ(libsnbf_snap_each(handle_, 0, ignore, nullptr), -EIO);
  EXPECT_EQ(libsnbf_snap_resume(handle_, 0, &resumed), -EIO);
  EXPECT_EQ(libsnbf_snap_discard(handle_, 0, "newer"), -EIO);
  EXPECT_EQ(create("third"), -EIO);
  std::filesystem::rename(dir_ + "/kept", dir_ + "/newer.snap");
  EXPECT_EQ(resume(), 2u);
}

TEST_F(Snaps, ASnapWhoseRecordCannotBeReadIsNeitherStartedNorDeleted) {
  ASSERT_EQ(create("older"), 0);
  const uint32_t minor = driver_->minor_of("older");
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  std::filesystem::rename(dir_ + "/older.snap", dir_ + "/kept");
  std::filesystem::create_symlink("/proc/self/mem", dir_ + "/older.snap");
  EXPECT_EQ(libsnbf_start(handle_, minor), -EIO) << "it may hold an image";
  EXPECT_EQ(remove("older"), -EIO);
  EXPECT_TRUE(there("cow/older.cow"));
  std::filesystem::rename(dir_ + "/kept", dir_ + "/older.snap");
  EXPECT_EQ(libsnbf_start(handle_, minor), -ENOTEMPTY);
}

TEST_F(Snaps, ADetachedNodesRecordsGo) {
  ASSERT_EQ(create("monday"), 0);
  ASSERT_EQ(libsnbf_detach(handle_, 0), 0);
  EXPECT_FALSE(there("monday.snap"));
}

TEST(SnapMountOptions, ReplayNoLog) {
  EXPECT_EQ(snbf::snap_mount_options("ext4"), "ro,noload");
  EXPECT_EQ(snbf::snap_mount_options("xfs"), "ro,norecovery,nouuid");
  EXPECT_EQ(snbf::snap_mount_options("reiserfs"), "ro,nolog");
  EXPECT_EQ(snbf::snap_mount_options("ext2"), "ro")
      << "it has no log, and does not know the option";
  EXPECT_EQ(snbf::snap_mount_options("btrfs"), "") << "never beside its origin";
}

}  // namespace
}  // namespace snbf::played
