// SPDX-License-Identifier: GPL-2.0-only
#include "capture_journal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace snbf {
namespace {

CaptureRecord taken() {
  CaptureRecord record;
  record.captured = true;
  record.full = true;
  record.node_uuid = "{a-node}";
  record.destination = "/backups/data";
  record.point = "chain:7";
  record.incr = Extents(100, 65536, 100 * 65536 - 512);
  record.incr.set(3);
  record.incr.set(99);
  record.diff = record.incr;
  record.diff.set(50);
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
  EXPECT_TRUE(back->incr.same_shape(taken().incr));
  EXPECT_EQ(back->incr.bytes(), taken().incr.bytes());
  EXPECT_EQ(back->diff.bytes(), taken().diff.bytes());
}

TEST(CaptureJournal, AnIncrementalOneCarriesOneBitmap) {
  CaptureRecord record = taken();
  record.full = false;
  const auto back = decode(encode(record));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->incr.bytes(), record.incr.bytes());
  EXPECT_LT(encode(record).size(), encode(taken()).size());
}

TEST(CaptureJournal, OneThatOnlyBeganCarriesNone) {
  CaptureRecord record = taken();
  record.captured = false;
  const auto back = decode(encode(record));
  ASSERT_TRUE(back);
  EXPECT_FALSE(back->captured);
  EXPECT_TRUE(back->incr.none());
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

TEST_F(OnDisk, IsThereFromTheFirstWriteUntilItIsDropped) {
  const CaptureJournal journal(directory_, 3);
  EXPECT_FALSE(journal.exists());
  EXPECT_FALSE(journal.read());
  journal.write(taken());
  EXPECT_TRUE(journal.exists());
  ASSERT_TRUE(journal.read());
  EXPECT_EQ(journal.read()->point, "chain:7");
  journal.drop();
  EXPECT_FALSE(journal.exists());
}

TEST_F(OnDisk, ADamagedOneCountsAsAFullCaptureThatOnlyBegan) {
  const CaptureJournal journal(directory_, 3);
  journal.write(taken());
  std::ofstream(directory_ + "/snbf3.capture", std::ios::app) << "x";
  const auto record = journal.read();
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->captured);
  EXPECT_TRUE(record->full);
  EXPECT_EQ(record->node_uuid, "") << "nobody knows whose it is";
}

}  // namespace
}  // namespace snbf
