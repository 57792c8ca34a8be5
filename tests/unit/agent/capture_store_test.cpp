// SPDX-License-Identifier: GPL-2.0-only
// A capture whose store goes away under it, or cannot be read: the next one is full or right.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "capture_journal.h"
#include "played_capture.h"
#include "played_devices.h"

namespace snbf::played {
namespace {

namespace fs = std::filesystem;

const Marks kChanged{1, 2, 9};

class CaptureStore : public Captures {
 protected:
  CaptureStore() {
    fs::create_directories(store_);
    std::strcpy(driver_->node(0).incr_bmp_fname, (store_ + "/snbf0.incr").c_str());
    libsnbf_state before{};
    std::strcpy(before.name, "data");
    std::strcpy(before.uuid, "{data}");
    std::strcpy(before.device, "dm:one");
    std::strcpy(before.incr_point, "chain:6");
    before.epoch = 5;
    EXPECT_EQ(libsnbf_state_write(store_.c_str(), 0, &before), 0);
    for (int extent : kChanged) mark(SNBF_BMP_INCR, extent);
  }
  ~CaptureStore() override { forget_played(); }

  // As an unmount leaves it: the folder is there, and empty.
  void unmount() {
    fs::rename(store_, away_);
    fs::create_directories(store_);
  }
  void mount() {
    fs::remove_all(store_);
    fs::rename(away_, store_);
  }
  bool nothing_is_beside() const { return fs::is_empty(store_); }
  static std::string text_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string record_text() const { return text_of(store_ + "/snbf0.state"); }
  std::string counts_from() const {
    libsnbf_state found{};
    EXPECT_EQ(libsnbf_state_read(store_.c_str(), 0, &found), 0);
    return found.incr_point;
  }
  // Reading it fails, as on a bad sector.
  void break_the_record() {
    fs::rename(store_ + "/snbf0.state", dir_ + "/kept");
    fs::create_symlink("/proc/self/mem", store_ + "/snbf0.state");
  }
  void mend_the_record() { fs::rename(dir_ + "/kept", store_ + "/snbf0.state"); }
  libsnbf_recovered recovered(bool known) {
    libsnbf_recovered found = LIBSNBF_RECOVERED_NOTHING;
    close();
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(recover(known, &found), 0);
    EXPECT_FALSE(pending());
    return found;
  }

  const std::string store_ = dir_ + "/store";
  const std::string away_ = dir_ + "/away";
};

TEST_F(CaptureStore, NoneIsOpenedBesideIt) {
  unmount();
  EXPECT_EQ(open(), -ENOLINK);
  EXPECT_TRUE(nothing_is_beside());
  fs::remove(store_);
  EXPECT_EQ(open(), -ENOLINK) << "the folder has gone too";
  mount();
  EXPECT_EQ(open(), 0);
}

TEST_F(CaptureStore, NoneBeginsBesideIt) {
  for (bool with_snap : {true, false}) {
    ASSERT_EQ(open(), 0);
    unmount();
    EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL, with_snap), -ENOLINK);
    EXPECT_TRUE(nothing_is_beside());
    EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
    mount();
    EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL, with_snap), 0);
    close();
  }
}

TEST_F(CaptureStore, AnotherOneInItsPlaceIsLeftAlone) {
  ASSERT_EQ(open(), 0);
  unmount();
  libsnbf_state others{};
  std::strcpy(others.uuid, "{somebody's}");
  ASSERT_EQ(libsnbf_state_write(store_.c_str(), 0, &others), 0);
  const std::string before = record_text();
  EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL), -ENOLINK);
  EXPECT_EQ(record_text(), before);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
}

TEST_F(CaptureStore, AFolderWithACopyOfTheRecordIsNotTheStore) {
  ASSERT_EQ(open(), 0);
  unmount();
  for (const char* file : {"/snbf0.state", "/snbf0.lock"})
    fs::copy_file(away_ + file, store_ + file);
  EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL), -ENOLINK);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
}

TEST_F(CaptureStore, NoBitIsTakenWhenTheJournalIsBesideIt) {
  ASSERT_EQ(open(), 0);
  play_behind_rename([this](const std::string& to) {
    EXPECT_EQ(to, store_ + "/snbf0.capture");
    unmount();
    fs::rename(away_ + "/snbf0.capture", store_ + "/beside");
  });
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -ENOLINK);
  EXPECT_THAT(driver_->sent_, testing::Not(testing::Contains(SNBF_GET_AND_CLR_BMP)));
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
  mount();
  EXPECT_EQ(counts_from(), "chain:6");
}

TEST_F(CaptureStore, WhenItGoesAsTheBitsAreTakenEverythingCounts) {
  ASSERT_EQ(open(), 0);
  const auto played = driver_->answer_first_;
  driver_->answer_first_ = [this, played](uint32_t command, void* record) {
    if (command == SNBF_GET_AND_CLR_BMP) unmount();
    return played(command, record);
  };
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -ENOLINK);
  driver_->answer_first_ = played;
  EXPECT_TRUE(nothing_is_beside());
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged) << "what is in memory is given back all the same";
  mount();
  EXPECT_EQ(recovered(false), LIBSNBF_RECOVERED_ALL);
  EXPECT_EQ(marked(SNBF_BMP_INCR), all_marks());
}

TEST_F(CaptureStore, NoFurtherBitIsTakenBesideIt) {
  uint8_t bits[kBitsBytes];
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR, false), 0);
  mark(SNBF_BMP_INCR, 5);
  unmount();
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), -ENOLINK);
  EXPECT_TRUE(nothing_is_beside());
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{5});
  close();
  EXPECT_EQ(marked(SNBF_BMP_INCR), (Marks{1, 2, 5, 9}));
}

TEST_F(CaptureStore, APointThatIsNamedWhileItIsAwayIsCompletedOnceItIsBack) {
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
  unmount();
  EXPECT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), -ENOLINK);
  EXPECT_TRUE(nothing_is_beside());
  mount();
  EXPECT_EQ(counts_from(), "chain:6");
  EXPECT_TRUE(pending());
  EXPECT_EQ(recovered(true), LIBSNBF_RECOVERED_COMMITTED);
  EXPECT_EQ(counts_from(), "chain:7");
  libsnbf_state after{};
  ASSERT_EQ(libsnbf_state_read(store_.c_str(), 0, &after), 0);
  EXPECT_STREQ(after.uuid, "{data}");
  EXPECT_STREQ(after.device, "dm:one");
  EXPECT_EQ(after.epoch, 5u);
}

TEST_F(CaptureStore, OneThatIsAbortedWhileItIsAwayIsGivenBackOnceItIsBack) {
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  unmount();
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), -ENOLINK);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
  mount();
  EXPECT_TRUE(pending());
  std::memset(bitmaps_->bits, 0, sizeof bitmaps_->bits);  // as the files in the store have it
  EXPECT_EQ(recovered(false), LIBSNBF_RECOVERED_MERGED);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kChanged);
  EXPECT_EQ(counts_from(), "chain:6");
}

TEST_F(CaptureStore, NoneIsRecoveredBesideIt) {
  libsnbf_recovered found;
  std::ofstream(store_ + "/snbf0.capture") << "cut off while it was written";
  ASSERT_EQ(open(), 0);
  unmount();
  EXPECT_EQ(recover(false, &found), -ENOLINK);
  EXPECT_TRUE(nothing_is_beside());
  mount();
  EXPECT_EQ(recovered(false), LIBSNBF_RECOVERED_ALL);
}

TEST_F(CaptureStore, ARecordThatCannotBeReadIsNotWrittenAnew) {
  libsnbf_recovered found;
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  break_the_record();
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), -EIO);
  EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL), -EIO);
  EXPECT_EQ(recover(true, &found), -EIO);
  close();
  EXPECT_EQ(open(), -EIO);
  EXPECT_TRUE(fs::is_symlink(store_ + "/snbf0.state"));
  mend_the_record();
  EXPECT_EQ(recovered(true), LIBSNBF_RECOVERED_COMMITTED);
  EXPECT_EQ(counts_from(), "chain:7");
}

TEST_F(CaptureStore, OneThatIsRecoveredIsOfTheTimeWhenItTookItsBits) {
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
  fs::copy_file(store_ + "/snbf0.capture", dir_ + "/kept");
  close();
  lib::CaptureRecord monday = *lib::decode(text_of(dir_ + "/kept"));
  EXPECT_NE(monday.time, 0);
  monday.time = 1700000000;
  std::ofstream(store_ + "/snbf0.capture", std::ios::binary) << lib::encode(monday);
  EXPECT_EQ(recovered(true), LIBSNBF_RECOVERED_COMMITTED);
  EXPECT_EQ(last().any, 1700000000);
  EXPECT_EQ(last().full, 1700000000);
}

TEST_F(CaptureStore, WhatIsKnownOfEarlierOnesIsNotLostToAReadThatFails) {
  fs::create_symlink("/proc/self/mem", store_ + "/snbf0.last");
  libsnbf_last_capture found{};
  EXPECT_EQ(libsnbf_capture_last(handle_, 0, &found), -EIO);
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), 0);
  EXPECT_TRUE(fs::is_symlink(store_ + "/snbf0.last"));
}

TEST_F(CaptureStore, ADamagedRecordIsABlankOne) {
  std::ofstream(store_ + "/snbf0.state") << "snbf-state 1\nname=data\n";
  ASSERT_EQ(open(), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), 0);
  EXPECT_EQ(counts_from(), "chain:7");
}

}  // namespace
}  // namespace snbf::played
