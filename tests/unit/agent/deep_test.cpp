// SPDX-License-Identifier: GPL-2.0-only
// What is told of a point beyond its hashes, and what the programs behind it say.
#include "deep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "attended.h"
#include "convert.h"
#include "files.h"

namespace snbf {
namespace {

using testing::HasSubstr;

TEST(Percent, IsTheLastOneThatWasPrinted) {
  EXPECT_EQ(percent_in("    (1.00/100%)\r    (2.50/100%)\r"), 2.5);
  EXPECT_EQ(percent_in("    (100.00/100%)\r\n"), 100);
  EXPECT_EQ(percent_in("    (3.0"), std::nullopt);
  EXPECT_EQ(percent_in("/100%)"), std::nullopt);
  EXPECT_EQ(percent_in(""), std::nullopt);
}

TEST(E2fsck, SaysDamageOnlyForErrorsThatAreLeft) {
  EXPECT_EQ(judge_e2fsck("ext4", 0, "").damage, "");
  EXPECT_EQ(judge_e2fsck("ext4", 0, "").checked, "e2fsck");
  EXPECT_THAT(judge_e2fsck("ext3", 4, "").damage, HasSubstr("ext3"));
  EXPECT_THAT(judge_e2fsck("ext3", 5, "").damage, HasSubstr("errors"));
}

TEST(E2fsck, ThatCouldNotWorkHasCheckedNothing) {
  const FileSystemFinding missing = judge_e2fsck("ext4", 127, "");
  EXPECT_EQ(missing.checked, "");
  EXPECT_THAT(missing.not_checked, HasSubstr("e2fsprogs"));
  const FileSystemFinding failed = judge_e2fsck("ext4", 8, "first\nno such feature\n");
  EXPECT_EQ(failed.damage, "");
  EXPECT_THAT(failed.not_checked, HasSubstr("no such feature"));
}

TEST(XfsRepair, IsNotBelievedAboutALogThatIsNotReplayed) {
  EXPECT_EQ(judge_xfs_repair(0, "").damage, "");
  EXPECT_EQ(judge_xfs_repair(0, "").checked, "xfs_repair");
  EXPECT_THAT(judge_xfs_repair(1, "bad nblocks").damage, HasSubstr("errors"));
  const FileSystemFinding dirty =
      judge_xfs_repair(1, "ALERT: The filesystem has valuable metadata changes in a log which is");
  EXPECT_EQ(dirty.damage, "");
  EXPECT_THAT(dirty.not_checked, HasSubstr("log"));
  EXPECT_THAT(judge_xfs_repair(127, "").not_checked, HasSubstr("xfsprogs"));
}

class Images : public testing::Test {
 protected:
  Images() {
    char name[] = "/tmp/snbf-deep-XXXXXX";
    dir_ = ::mkdtemp(name);
    manifest_.size = 1 << 20;
    manifest_.extent_size = 65536;
    add(1, std::nullopt);
    add(2, 1);
    make("1.qcow2", "1M", "");
    make("2.qcow2", "1M", "1.qcow2");
  }
  ~Images() override { std::filesystem::remove_all(dir_); }
  void add(uint64_t id, std::optional<uint64_t> parent) {
    Point point;
    point.id = id;
    point.parent = parent;
    point.file = std::to_string(id) + ".qcow2";
    manifest_.points.push_back(point);
  }
  void make(const std::string& file, const std::string& size, const std::string& backing) {
    std::filesystem::remove(dir_ + "/" + file);
    std::vector<std::string> command = {"qemu-img", "create", "-q", "-f", "qcow2"};
    if (!backing.empty()) command.insert(command.end(), {"-b", backing, "-F", "qcow2"});
    command.insert(command.end(), {dir_ + "/" + file, size});
    run_or_throw(command);
  }
  std::string damage(size_t point) const {
    return image_damage(manifest_, manifest_.points[point], dir_);
  }
  std::string dir_;
  Manifest manifest_;
};

TEST_F(Images, AreSoundWhereTheyStandOnTheirParents) {
  EXPECT_EQ(damage(0), "");
  EXPECT_EQ(damage(1), "");
}

TEST_F(Images, ThatStandOnAnotherFileAreTold) {
  make("3.qcow2", "1M", "");
  make("2.qcow2", "1M", "3.qcow2");
  EXPECT_THAT(damage(1), HasSubstr("stands on 3.qcow2 instead of 1.qcow2"));
  make("1.qcow2", "1M", "3.qcow2");
  EXPECT_THAT(damage(0), HasSubstr("stands on 3.qcow2 instead of nothing"));
  make("2.qcow2", "1M", "");
  EXPECT_THAT(damage(1), HasSubstr("stands on nothing instead of 1.qcow2"));
}

TEST_F(Images, OfAnotherSizeOrKindAreTold) {
  make("1.qcow2", "2M", "");
  EXPECT_THAT(damage(0), HasSubstr("is of 2097152 bytes instead of 1048576"));
  std::ofstream(dir_ + "/1.qcow2") << "no image";
  EXPECT_THAT(damage(0), HasSubstr("cannot open it"));
  std::filesystem::remove(dir_ + "/1.qcow2");
  run_or_throw({"qemu-img", "create", "-q", "-f", "qcow2", "-o",
                "data_file=" + dir_ + "/data,data_file_raw=on", dir_ + "/1.qcow2", "1M"});
  EXPECT_THAT(damage(0), HasSubstr("another file"));
}

TEST_F(Images, AreMeasuredThroughTheirChain) {
  EXPECT_EQ(data_bytes_of(dir_ + "/2.qcow2"), 0u);
  run_or_throw({"qemu-io", "-f", "qcow2", "-c", "write 0 64k", dir_ + "/1.qcow2"});
  run_or_throw({"qemu-io", "-f", "qcow2", "-c", "write 128k 64k", dir_ + "/2.qcow2"});
  EXPECT_EQ(data_bytes_of(dir_ + "/2.qcow2"), 2u * 65536);
}

TEST(AProgram, IsAttendedAndAskedToEnd) {
  std::string seen;
  const Ran ran = run_attended({"sh", "-c", "echo one; echo two"},
                               {[&seen](std::string_view text) { seen += text; }, {}});
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(seen, "one\ntwo\n");
  EXPECT_EQ(run_attended({"sleep", "1000"}, {{}, [] { return true; }}).status, 128 + SIGTERM);
}

}  // namespace
}  // namespace snbf
