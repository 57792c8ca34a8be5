// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "capture_journal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "handle.h"

namespace snbf::lib {
namespace {

CaptureRecord taken() {
  CaptureRecord record;
  record.captured = true;
  record.full = true;
  record.node_uuid = "{a-node}";
  record.destination = "/backups/data";
  record.point = "chain:7";
  record.time = 1700000000;
  record.incr = {0x08, 0, 0x0a, 0xff};
  record.diff = {0x09, 1, 0x0a, 0xff};
  return record;
}

TEST(CaptureJournal, GivesBackWhatWasTaken) {
  const auto back = decode(encode(taken()));
  ASSERT_TRUE(back);
  EXPECT_TRUE(back->captured);
  EXPECT_TRUE(back->full);
  EXPECT_EQ(back->node_uuid, "{a-node}");
  EXPECT_EQ(back->destination, "/backups/data");
  EXPECT_EQ(back->point, "chain:7");
  EXPECT_EQ(back->time, 1700000000);
  EXPECT_EQ(back->incr, taken().incr);
  EXPECT_EQ(back->diff, taken().diff);
}

TEST(CaptureJournal, AnIncrementalOneCarriesOneBitmap) {
  CaptureRecord record = taken();
  record.full = false;
  const auto back = decode(encode(record));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->incr, record.incr);
  EXPECT_LT(encode(record).size(), encode(taken()).size());
}

TEST(CaptureJournal, OneThatOnlyBeganCarriesNone) {
  CaptureRecord record = taken();
  record.captured = false;
  const auto back = decode(encode(record));
  ASSERT_TRUE(back);
  EXPECT_FALSE(back->captured);
  EXPECT_TRUE(back->incr.empty());
}

TEST(CaptureJournal, AnyFlippedByteAndAnyCutIsNoticed) {
  const std::string good = encode(taken());
  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x10);
    EXPECT_FALSE(decode(bad)) << "byte " << i;
    EXPECT_FALSE(decode(good.substr(0, i))) << "cut at " << i;
  }
}

class OnDisk : public testing::Test {
 protected:
  OnDisk() {
    char name[] = "/tmp/snbf-journal-XXXXXX";
    directory_ = ::mkdtemp(name);
  }
  ~OnDisk() override { std::filesystem::remove_all(directory_); }
  std::string directory_;
};

std::optional<CaptureRecord> read(const CaptureJournal& journal) {
  std::optional<CaptureRecord> record;
  EXPECT_EQ(journal.read(&record), 0);
  return record;
}

TEST_F(OnDisk, IsThereFromTheFirstWriteUntilItIsDropped) {
  const CaptureJournal journal(directory_, 3);
  EXPECT_FALSE(read(journal));
  EXPECT_EQ(journal.write(taken()), 0);
  ASSERT_TRUE(read(journal));
  EXPECT_EQ(read(journal)->point, "chain:7");
  EXPECT_EQ(journal.drop(), 0);
  EXPECT_FALSE(read(journal));
  EXPECT_EQ(journal.drop(), 0) << "it is gone, whoever took it away";
}

TEST_F(OnDisk, ADamagedOneCountsAsAFullCaptureThatOnlyBegan) {
  const CaptureJournal journal(directory_, 3);
  EXPECT_EQ(journal.write(taken()), 0);
  std::ofstream(directory_ + "/snbf3.capture", std::ios::app) << "x";
  const auto record = read(journal);
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->captured);
  EXPECT_TRUE(record->full);
  EXPECT_EQ(record->node_uuid, "") << "nobody knows whose it is";
}

TEST_F(OnDisk, OneOfAnEarlierVersionHasTheTimeOfItsFile) {
  const std::string path = directory_ + "/snbf3.capture";
  const CaptureJournal journal(directory_, 3);
  const std::string earlier =
      "snbf-capture 3\ncaptured=1\nfull=0\nnode={a-node}\ndestination=/backups/data\n"
      "point=chain:7\nbits=2\n\nab";
  std::ofstream(path) << earlier << hex64(XXH3_64bits(earlier.data(), earlier.size()));
  const timespec monday[2] = {{1700000000, 0}, {1700000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), monday, 0), 0);
  const auto record = read(journal);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->point, "chain:7");
  EXPECT_EQ(record->incr, (Bits{'a', 'b'}));
  EXPECT_EQ(record->time, 1700000000);
}

TEST_F(OnDisk, OneThatCannotBeReadIsNotTakenForNone) {
  std::filesystem::create_directories(directory_ + "/snbf3.capture");
  std::optional<CaptureRecord> record;
  EXPECT_EQ(CaptureJournal(directory_, 3).read(&record), -EISDIR);
}

TEST_F(OnDisk, ALinesEndInATextIsRefused) {
  CaptureRecord record = taken();
  record.destination = "/backups\npoint=other";
  EXPECT_EQ(CaptureJournal(directory_, 3).write(record), -EINVAL);
}

}  // namespace
}  // namespace snbf::lib
