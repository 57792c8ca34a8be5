// SPDX-License-Identifier: GPL-2.0-only
// Whose a snap's COW files are, and whether they are the very ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <vector>

#include "played_snaps.h"

namespace {

// The files and folders that the library has put on the disk, in order.
std::vector<std::string> synced;

}  // namespace

extern "C" int fsync(int fd) {
  char name[4096] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (::readlink(link.c_str(), name, sizeof name - 1) > 0) synced.push_back(name);
  return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace snbf::played {
namespace {

using testing::ElementsAre;
using testing::EndsWith;

class SnapFiles : public Snaps {};

TEST_F(SnapFiles, FilesOfASnapThatTheDriverHasAreNeverTaken) {
  ASSERT_EQ(create("monday"), 0);
  libsnbf_snap_record record;
  ASSERT_EQ(libsnbf_snap_record_read(dir_.c_str(), "monday", &record), 0);
  std::filesystem::remove(dir_ + "/monday.snap");  // made by somebody else
  for (const char* suffix : {".cow", ".cowmap"}) {
    const std::string link = dir_ + "/cow/tuesday" + suffix;
    std::filesystem::create_symlink(dir_ + "/cow/monday" + suffix, link);
    EXPECT_EQ(create("tuesday", 0, true), -ETXTBSY) << suffix;
    std::filesystem::remove(link);
  }
  EXPECT_EQ(create("tuesday"), 0);
}

TEST_F(SnapFiles, FilesOfAStoppedSnapOfAnotherNodeAreNeverTaken) {
  libsnbf_snap_record other{};
  std::strcpy(other.name, "monday");
  std::strcpy(other.node_uuid, "{other}");
  std::strcpy(other.cow_data_fname, (dir_ + "/cow/monday.cow").c_str());
  std::strcpy(other.cow_bmp_fname, (dir_ + "/cow/monday.cowmap").c_str());
  put("cow/monday.cow", "an image");
  // Its bitmaps, and so its record, lie elsewhere: here beside the files, there with an attached
  // node.
  for (const std::string& dir : {dir_ + "/cow", dir_ + "/elsewhere"}) {
    std::filesystem::create_directories(dir);
    ASSERT_EQ(libsnbf_snap_record_write(dir.c_str(), &other), 0);
    if (dir != dir_ + "/cow") driver_->add_filter(1, dir);
    EXPECT_EQ(create("monday", 0, true), -ETXTBSY) << dir;
    EXPECT_EQ(std::filesystem::file_size(dir_ + "/cow/monday.cow"), 8u);
    std::filesystem::remove(dir + "/monday.snap");
  }
  EXPECT_EQ(create("monday", 0, true), 0);
}

TEST_F(SnapFiles, AStoppedSnapsFilesAreKnownUnderAnotherPath) {
  ASSERT_EQ(create("monday"), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  driver_->restart();
  std::filesystem::rename(dir_ + "/cow/monday.cow", dir_ + "/cow/tuesday.cow");
  EXPECT_EQ(create("tuesday", 0, true), -ETXTBSY);
}

TEST_F(SnapFiles, OneThatIsLostInTheMomentOfItsStartLeavesNothing) {
  driver_->valid_after_start_ = 0;
  EXPECT_EQ(create("monday"), -ENODATA);
  EXPECT_EQ(driver_->minor_of("monday"), UINT32_MAX);
  EXPECT_FALSE(there("monday.snap"));
  EXPECT_FALSE(there("cow/monday.cow"));
  driver_->valid_after_start_ = 1;
  EXPECT_EQ(create("monday"), 0);
}

TEST_F(SnapFiles, ACutInsideAStartOverOldFilesLeavesNoImageToBelieve) {
  ASSERT_EQ(create("monday"), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  driver_->restart();
  ASSERT_THAT(judged(), ElementsAre("monday="));
  // Old files are only taken once their record is gone for good.
  EXPECT_EQ(create("monday", 0, true), -EEXIST);
  put("kept", "");
  std::filesystem::rename(dir_ + "/cow/monday.cow", dir_ + "/kept");
  synced.clear();
  ASSERT_EQ(libsnbf_snap_discard(handle_, 0, "monday"), 0);
  EXPECT_FALSE(there("monday.snap"));
  ASSERT_FALSE(synced.empty());
  EXPECT_EQ(std::filesystem::canonical(synced.back()), std::filesystem::canonical(dir_))
      << "the folder is synced behind it";
  std::filesystem::rename(dir_ + "/kept", dir_ + "/cow/monday.cow");
  synced.clear();
  driver_->on_start_ = [this] {
    ASSERT_GE(synced.size(), 2u);
    EXPECT_THAT(synced[0], EndsWith("/monday.snap.new"));
    EXPECT_EQ(std::filesystem::canonical(synced[1]), std::filesystem::canonical(dir_));
    EXPECT_THAT(judged_now(), ElementsAre("monday=0"));
  };
  ASSERT_EQ(create("monday", 0, true), 0);
}

TEST_F(SnapFiles, OneWhoseFilesWereWrittenIsDead) {
  two_snaps_stopped_with_their_node();
  const std::filesystem::path file = dir_ + "/cow/newer.cow";
  const auto before = std::filesystem::last_write_time(file);
  std::filesystem::last_write_time(file, before + std::chrono::nanoseconds(1));
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost", "newer=files-changed"));
  std::filesystem::last_write_time(file, before);
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
}

TEST_F(SnapFiles, ARecordThatIsDamagedMayHaveBeenOfANewerOne) {
  two_snaps_stopped_with_their_node();
  put("newer.snap", "not what it was");
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost"));
}

TEST_F(SnapFiles, OneWhoseFilesAreOthersIsDead) {
  two_snaps_stopped_with_their_node();
  const std::filesystem::path file = dir_ + "/cow/newer.cowmap";
  const auto before = std::filesystem::last_write_time(file);
  std::filesystem::copy_file(file, dir_ + "/cow/copy");
  std::filesystem::rename(dir_ + "/cow/copy", file);
  std::filesystem::last_write_time(file, before);
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost", "newer=files-changed"));
}

TEST_F(SnapFiles, TheDeviceNumberOfItsFilesHoldsForOneBoot) {
  two_snaps_stopped_with_their_node();
  libsnbf_snap_record record;
  ASSERT_EQ(libsnbf_snap_record_read(dir_.c_str(), "newer", &record), 0);
  record.cow_data_mark.dev += 1;
  ASSERT_EQ(libsnbf_snap_record_write(dir_.c_str(), &record), 0);
  EXPECT_THAT(judged(), ElementsAre("older=newer-lost", "newer=files-changed"));
  put("sys/kernel/random/boot_id", "next-boot\n");
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
}

TEST_F(SnapFiles, OneThatCameBackIsKnownAgainAfterItsNextStop) {
  two_snaps_stopped_with_their_node();
  ASSERT_EQ(resume(), 2u);
  put("cow/newer.cow", std::string(kSize, 'c'));  // copies go on
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  EXPECT_THAT(judged(), ElementsAre("older=", "newer="));
}

TEST_F(SnapFiles, FilesNeverLieOnThePartition) {
  struct stat about;
  ASSERT_EQ(::stat(dir_.c_str(), &about), 0);
  put("snbf/snbf0/hdd_major", std::to_string(major(about.st_dev)));
  put("snbf/snbf0/hdd_minor", std::to_string(minor(about.st_dev)));
  EXPECT_EQ(create("monday"), -ELOOP);
  EXPECT_FALSE(there("monday.snap"));
}

TEST_F(SnapFiles, FilesThatAreThereAreNotOverwrittenUnasked) {
  put("cow/monday.cow", "somebody's");
  EXPECT_EQ(create("monday"), -ENOTEMPTY);
  EXPECT_TRUE(there("cow/monday.cow"));
  EXPECT_EQ(create("monday", 0, true), 0);
}

}  // namespace
}  // namespace snbf::played
