// SPDX-License-Identifier: GPL-2.0-only
// The library's capture over a driver that the test plays: its order, every failure, every kill.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "played_capture.h"

namespace snbf::played {
namespace {

using testing::IsSupersetOf;

class Capture : public Captures {
 protected:
  Capture() {
    for (int extent : {1, 2, 9}) mark(SNBF_BMP_INCR, extent);
    for (int extent : {1, 2, 9, 12}) mark(SNBF_BMP_DIFF, extent);
    EXPECT_EQ(open(), 0);
  }
  // Begun without a snap: all that was taken is known to have landed.
  bool settles() {
    EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR, false), 0);
    wanted();
    return source_.unsettled_cnt == 0;
  }
};

const Marks kIncr{1, 2, 9};
const Marks kDiff{1, 2, 9, 12};

TEST_F(Capture, AnIncrementalOneTakesOneBitmap) {
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  EXPECT_EQ(wanted(), kIncr);
  EXPECT_TRUE(source_.from_snap);
  EXPECT_EQ(source_.device, dir_ + "/device-files/snbf/data-backup");
  EXPECT_EQ(source_.dev_size, kSize);
  EXPECT_EQ(source_.extent_size, kExtent);
  EXPECT_EQ(source_.bits_size, kBitsBytes);
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{});
  EXPECT_EQ(marked(SNBF_BMP_DIFF), kDiff);
  EXPECT_TRUE(pending());
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  int left = -1;
  ASSERT_EQ(libsnbf_capture_commit(capture_, &left), 0);
  EXPECT_EQ(left, 0);
  EXPECT_FALSE(pending());
  EXPECT_FALSE(a_snap_is_left());
  EXPECT_STREQ(state().incr_point, "chain:7");
  EXPECT_STREQ(state().diff_point, "");
  EXPECT_NE(last().any, 0);
  EXPECT_EQ(last().full, 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{});
}

TEST_F(Capture, ADifferentialOneWantsBothAndTakesOne) {
  ASSERT_EQ(begin(LIBSNBF_LEVEL_DIFF), 0);
  EXPECT_EQ(wanted(), kDiff);
  EXPECT_EQ(marked(SNBF_BMP_DIFF), kDiff);
}

TEST_F(Capture, AFullOneTakesBothAndEndsTheDistrust) {
  libsnbf_state before = state();
  std::strcpy(before.distrust, LIBSNBF_WHY_DIRTY);
  ASSERT_EQ(libsnbf_state_write(dir_.c_str(), 0, &before), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
  EXPECT_EQ(wanted(), all_marks());
  EXPECT_EQ(marked(SNBF_BMP_DIFF), Marks{});
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  ASSERT_EQ(libsnbf_capture_commit(capture_, nullptr), 0);
  EXPECT_STREQ(state().incr_point, "chain:7");
  EXPECT_STREQ(state().diff_point, "chain:7");
  EXPECT_NE(last().full, 0);
  EXPECT_EQ(last().full, last().any);
  EXPECT_STREQ(state().distrust, "");
}

TEST_F(Capture, AWriteBetweenTheTakingAndTheSnapIsWantedAndStaysMarked) {
  bitmaps_->write_at = SNBF_ADD_SNAP_NODE;
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  EXPECT_EQ(wanted(), (Marks{1, 2, 9, 15}));
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{15});
}

TEST_F(Capture, AnAbortedOneGivesBackWhatItTook) {
  for (libsnbf_level level : {LIBSNBF_LEVEL_INCR, LIBSNBF_LEVEL_DIFF, LIBSNBF_LEVEL_FULL}) {
    ASSERT_EQ(begin(level), 0) << level;
    EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
    EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr) << level;
    EXPECT_EQ(marked(SNBF_BMP_DIFF), kDiff) << level;
    EXPECT_FALSE(pending());
    EXPECT_FALSE(a_snap_is_left());
  }
}

TEST_F(Capture, OneThatIsOnlyClosedIsAborted) {
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  close();
  EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr);
  EXPECT_FALSE(pending());
}

TEST_F(Capture, OneAtATime) {
  libsnbf_capture* second = nullptr;
  EXPECT_EQ(libsnbf_capture_open(handle_, 0, &second), -EBUSY);
  EXPECT_EQ(second, nullptr);
  close();
  EXPECT_EQ(libsnbf_capture_open(handle_, 0, &second), 0);
  EXPECT_EQ(open(), -EBUSY);
  libsnbf_capture_close(second);
}

TEST_F(Capture, TheOrderOfCallsIsKept) {
  uint8_t bits[kBitsBytes];
  EXPECT_EQ(libsnbf_capture_source(capture_, &source_, nullptr, 0), -EPROTO);
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), -EPROTO);
  EXPECT_EQ(libsnbf_capture_check(capture_), -EPROTO);
  EXPECT_EQ(libsnbf_capture_seal(capture_), -EPROTO);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), -EPROTO);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -EALREADY);
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), -EOPNOTSUPP);
  EXPECT_EQ(libsnbf_capture_source(capture_, &source_, bits, 1), -ENOSPC);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), -EPROTO) << "it is not sealed";
  libsnbf_recovered found;
  EXPECT_EQ(recover(false, &found), -EALREADY);
  EXPECT_TRUE(pending());
}

TEST_F(Capture, WhatCannotBeCapturedIsRefused) {
  libsnbf_capture* other = nullptr;
  EXPECT_EQ(libsnbf_capture_open(handle_, 77, &other), -EINVAL);
  driver_->node(0).started = 0;
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -EINVAL);
  driver_->node(0).started = 1;
  std::strcpy(driver_->node(0).uuid, "{another}");
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -ENODEV) << "the minor is another node's by now";
  EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr);
}

TEST_F(Capture, ATextThatTheJournalCannotHoldIsRefused) {
  const std::string cow = dir_ + "/cow";
  const std::string longest(95, 'p');
  libsnbf_capture_request request{LIBSNBF_LEVEL_INCR, "/a\nb", "p", cow.c_str()};
  EXPECT_EQ(libsnbf_capture_begin(capture_, &request), -EINVAL);
  const std::string too_long(96, 'p');
  request.destination = "/a";
  request.point = too_long.c_str();
  EXPECT_EQ(libsnbf_capture_begin(capture_, &request), -ENAMETOOLONG);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr);
  EXPECT_FALSE(pending());
  request.point = longest.c_str();
  EXPECT_EQ(libsnbf_capture_begin(capture_, &request), 0);
}

TEST_F(Capture, ASnapThatIsLostEndsIt) {
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  EXPECT_EQ(libsnbf_capture_check(capture_), 0);
  driver_->node(driver_->minor_of("data-backup")).snap_valid = 0;
  EXPECT_EQ(libsnbf_capture_check(capture_), -ENODATA);
  EXPECT_EQ(libsnbf_capture_seal(capture_), -ENODATA);
  EXPECT_EQ(libsnbf_capture_commit(capture_, nullptr), -EPROTO);
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr);
}

TEST_F(Capture, ATakenNameMakesTheSnapTakeAnother) {
  ASSERT_EQ(create("data-backup"), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  wanted();
  EXPECT_EQ(source_.device, dir_ + "/device-files/snbf/data-backup.2");
}

TEST_F(Capture, ASnapThatOlderOnesNeedStaysWithThem) {
  ASSERT_EQ(create("older"), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  int left = 0;
  ASSERT_EQ(libsnbf_capture_commit(capture_, &left), 0);
  EXPECT_EQ(left, 1);
  libsnbf_recovered found;
  uint32_t still = 0;
  EXPECT_EQ(libsnbf_capture_recover(capture_, nullptr, nullptr, &found, &still), 0);
  EXPECT_EQ(still, 0u) << "it goes by itself";
}

TEST_F(Capture, WithoutASnapItGoesOnUntilNothingIsLeft) {
  uint8_t bits[kBitsBytes];
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR, false), 0);
  EXPECT_EQ(wanted(), kIncr);
  EXPECT_FALSE(source_.from_snap);
  EXPECT_EQ(source_.unsettled_cnt, 0u);
  EXPECT_EQ(source_.device, dir_ + "/" + kDevice);
  mark(SNBF_BMP_INCR, 5);
  ASSERT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), 0);
  EXPECT_EQ(marks_of(bits), Marks{5});
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, 0), -ENOSPC);
  close();
  EXPECT_EQ(marked(SNBF_BMP_INCR), (Marks{1, 2, 5, 9})) << "all that was taken comes back";
}

TEST_F(Capture, WritesThatMayNotHaveLandedCountAsChangedAgain) {
  std::filesystem::remove(dir_ + "/" + kAtHdd);
  EXPECT_FALSE(settles());
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  ASSERT_EQ(libsnbf_capture_commit(capture_, nullptr), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), kIncr);
}

TEST_F(Capture, WhatCannotBeToldOfWritesUnderWayIsNoRest) {
  for (const char* missing : {kHeld, kAtNode, kAtHdd, "snbf/blk_major"}) {
    SCOPED_TRACE(missing);
    std::filesystem::rename(dir_ + "/" + missing, dir_ + "/kept");
    EXPECT_FALSE(settles());
    EXPECT_TRUE(source_.never_settles);
    EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
    std::filesystem::rename(dir_ + "/kept", dir_ + "/" + missing);
  }
  put_on_a_partition();
  std::filesystem::remove(dir_ + "/devices/disk/inflight");
  EXPECT_FALSE(settles());
}

// Writes that wait for the disk's cache to be flushed first are counted nowhere.
TEST_F(Capture, WithoutAFlushThereIsNoRest) {
  std::filesystem::remove(dir_ + "/" + kDevice);
  EXPECT_FALSE(settles());
  EXPECT_FALSE(source_.never_settles);
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  std::filesystem::create_symlink("/dev/null", dir_ + "/" + kDevice);
  EXPECT_FALSE(settles()) << "it cannot be flushed";
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  std::filesystem::remove(dir_ + "/" + kDevice);
  put(kDevice, "");
  EXPECT_TRUE(settles());
}

TEST_F(Capture, WhatIsCapturedFromASnapSettlesThough) {
  std::filesystem::remove(dir_ + "/" + kAtNode);
  EXPECT_FALSE(settles());
  EXPECT_TRUE(source_.never_settles);
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  wanted();
  EXPECT_EQ(source_.unsettled_cnt, 0u);
  EXPECT_FALSE(source_.never_settles);
}

// Cleared, and in nobody's hands to be read.
TEST_F(Capture, BehindATakingThatFailedItCanOnlyBeGivenBack) {
  uint8_t bits[kBitsBytes];
  EXPECT_TRUE(settles());
  mark(SNBF_BMP_INCR, 5);
  bitmaps_->fail_behind = SNBF_GET_AND_CLR_BMP;
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), -EIO);
  bitmaps_->fail_behind = 0;
  EXPECT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), -EPROTO);
  EXPECT_EQ(libsnbf_capture_seal(capture_), -EPROTO);
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), all_marks());
  EXPECT_TRUE(settles()) << "the next one has not failed";
}

TEST_F(Capture, HeldWritesAreNoRest) {
  put(kHeld, "1\n");
  EXPECT_FALSE(settles());
}

TEST_F(Capture, AWriteUnderWayAtTheNodeIsNoRest) {
  put(kAtNode, "0 1\n");
  EXPECT_FALSE(settles());
}

TEST_F(Capture, AReadUnderWayAtTheDiskOfThePartitionIsNoRest) {
  put_on_a_partition();
  put("devices/disk/inflight", "1 0\n");
  EXPECT_FALSE(settles());
}

TEST_F(Capture, AReadUnderWayAtAWholeDiskIsNoRest) {
  put(kAtHdd, "1 0\n");
  EXPECT_FALSE(settles());
}

TEST_F(Capture, AWriteThatOnlyThePartitionCountsIsNoRest) {
  put_on_a_partition();
  put("devices/disk/part/inflight", "0 1\n");
  EXPECT_FALSE(settles());
}

TEST_F(Capture, ADeviceThatHasBeenToldNotToCountIsNoRest) {
  for (const char* device : {"dev/block/240:0", "dev/block/7:99"}) {
    SCOPED_TRACE(device);
    put(std::string(device) + "/queue/iostats", "0\n");
    EXPECT_FALSE(settles());
    EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
    put(std::string(device) + "/queue/iostats", "1\n");
  }
  EXPECT_TRUE(settles());
}

// What was begun without rest is read once more behind the next one, and is settled by it.
TEST_F(Capture, RestBehindALaterLookSettlesWhatWasTakenBefore) {
  uint8_t bits[kBitsBytes];
  put(kHeld, "1\n");
  EXPECT_FALSE(settles());
  mark(SNBF_BMP_INCR, 5);
  ASSERT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), 0);
  EXPECT_EQ(marks_of(bits), Marks{5}) << "what has not landed is not worth another reading";
  wanted();
  EXPECT_EQ(source_.unsettled_cnt, 4u);
  EXPECT_FALSE(source_.never_settles);
  put(kHeld, "0\n");
  mark(SNBF_BMP_INCR, 6);
  ASSERT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), 0);
  EXPECT_EQ(marks_of(bits), (Marks{1, 2, 5, 6, 9}));
  wanted();
  EXPECT_EQ(source_.unsettled_cnt, 0u);
  mark(SNBF_BMP_INCR, 7);
  ASSERT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), 0);
  EXPECT_EQ(marks_of(bits), Marks{7}) << "once is enough";
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{});
}

TEST_F(Capture, WhatIsTakenAgainIsUnsettledUntilItHasLanded) {
  uint8_t bits[kBitsBytes];
  EXPECT_TRUE(settles());
  put(kHeld, "1\n");
  mark(SNBF_BMP_INCR, 5);
  ASSERT_EQ(libsnbf_capture_again(capture_, bits, sizeof bits), 0);
  EXPECT_EQ(marks_of(bits), Marks{5});
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{5}) << "what had landed before is not given back";
}

// Both were taken, and a differential is laid over the full one, which may hold what was there before.
TEST_F(Capture, WhatAFullOneCouldNotCallSettledGoesBackIntoBoth) {
  put(kHeld, "1\n");
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL, false), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), marked(SNBF_BMP_DIFF));
  EXPECT_FALSE(marked(SNBF_BMP_DIFF).empty());
}

// Between the two takings it is in both, and it may have been read too early.
TEST_F(Capture, AWriteBetweenTheTakingsOfAFullOneIsInBothBehindIt) {
  put(kHeld, "1\n");
  bitmaps_->write_at = SNBF_GET_AND_CLR_BMP;
  bitmaps_->write_skips = 1;
  ASSERT_EQ(begin(LIBSNBF_LEVEL_FULL, false), 0);
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_TRUE(marked(SNBF_BMP_INCR).contains(15));
  EXPECT_TRUE(marked(SNBF_BMP_DIFF).contains(15));
}

TEST_F(Capture, AFolderOfAPartitionThatIsNoLinkWillDo) {
  put("dev/block/7:99/partition", "1\n");
  EXPECT_FALSE(settles()) << "what the disk says is missing";
  EXPECT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  put("dev/block/inflight", "0 0\n");
  EXPECT_TRUE(settles());
}

TEST_F(Capture, RestAtThePartitionsDiskAndReadsOfTheNodeSettleIt) {
  put_on_a_partition();
  put(kAtNode, "3 0\n");
  EXPECT_TRUE(settles());
  ASSERT_EQ(libsnbf_capture_seal(capture_), 0);
  EXPECT_EQ(marked(SNBF_BMP_INCR), Marks{});
}

// What a file says, look by look; then it says what the last one said for good, or is gone.
class Looks {
 public:
  Looks(std::string path, std::vector<std::string> texts, bool is_gone_then)
      : path_(std::move(path)), texts_(std::move(texts)), is_gone_then_(is_gone_then) {
    replace(0);
    player_ = std::jthread([this](const std::stop_token& stop) { play(stop); });
  }
  size_t taken() const { return taken_; }

 private:
  // A pipe for each: who opens one waits for its text, and whoever comes next finds the next.
  void replace(size_t at) {
    const std::string next = path_ + ".next";
    if (at < texts_.size()) {
      EXPECT_EQ(::mkfifo(next.c_str(), 0600), 0);
    } else if (is_gone_then_) {
      std::filesystem::remove(path_);
      return;
    } else {
      std::ofstream(next) << texts_.back();
    }
    std::filesystem::rename(next, path_);
  }
  void play(const std::stop_token& stop) {
    while (taken_ < texts_.size()) {
      const int reader = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (reader < 0 && stop.stop_requested()) return;
      if (reader < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      const std::string& text = texts_[taken_];
      replace(++taken_);
      EXPECT_EQ(::write(reader, text.data(), text.size()), static_cast<ssize_t>(text.size()));
      ::close(reader);
    }
  }

  const std::string path_;
  const std::vector<std::string> texts_;
  const bool is_gone_then_;
  std::atomic<size_t> taken_ = 0;
  std::jthread player_;
};

TEST_F(Capture, OneLookThatFindsRestIsNotEnough) {
  Looks looks(dir_ + "/" + kAtHdd, {"0 0\n", "0 1\n", "0 0\n", "1 0\n", "0 0\n"}, true);
  EXPECT_FALSE(settles());
  EXPECT_EQ(looks.taken(), 5u);
}

TEST_F(Capture, RestThatComesLaterIsWaitedFor) {
  Looks looks(dir_ + "/" + kAtHdd, {"1 4\n", "0 2\n", "2 0\n", "0 0\n"}, false);
  EXPECT_TRUE(settles());
  EXPECT_EQ(looks.taken(), 4u);
}

TEST_F(Capture, AfterOneThatWasCutOffRecoveryComesFirst) {
  put("snbf0.capture", "cut off while it was written");
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -EUCLEAN);
  libsnbf_recovered found;
  ASSERT_EQ(recover(true, &found), 0);
  EXPECT_EQ(found, LIBSNBF_RECOVERED_ALL);
  EXPECT_EQ(marked(SNBF_BMP_INCR), all_marks());
  EXPECT_EQ(marked(SNBF_BMP_DIFF), all_marks());
  EXPECT_STREQ(state().distrust, LIBSNBF_WHY_CAPTURE);
  EXPECT_EQ(begin(LIBSNBF_LEVEL_FULL), 0);
}

TEST_F(Capture, AnotherNodesJournalIsLeftAlone) {
  ASSERT_EQ(begin(LIBSNBF_LEVEL_INCR), 0);
  std::filesystem::copy_file(dir_ + "/snbf0.capture", dir_ + "/kept");
  ASSERT_EQ(libsnbf_capture_abort(capture_, nullptr), 0);
  close();
  std::filesystem::rename(dir_ + "/kept", dir_ + "/snbf0.capture");
  std::strcpy(driver_->node(0).uuid, "{another}");
  ASSERT_EQ(open(), 0);
  libsnbf_recovered found;
  EXPECT_EQ(recover(false, &found), -EXDEV);
  EXPECT_TRUE(pending());
  EXPECT_EQ(begin(LIBSNBF_LEVEL_INCR), -EUCLEAN);
}

// --- every step fails, every step is the last one ---------------------------------------------------

// Begin, seal, the destination's commit, commit. Answers whether the destination has the point.
struct Course {
  libsnbf_level level;
  bool with_snap;
};

class CaptureSteps : public Captures, public testing::WithParamInterface<Course> {
 protected:
  void reset() {
    std::memset(bitmaps_, 0, sizeof *bitmaps_);
    for (int extent : kIncr) mark(SNBF_BMP_INCR, extent);
    for (int extent : kDiff) mark(SNBF_BMP_DIFF, extent);
    libsnbf_state blank{};
    std::strcpy(blank.incr_point, "chain:6");
    std::strcpy(blank.diff_point, "chain:1");
    ASSERT_EQ(libsnbf_state_write(dir_.c_str(), 0, &blank), 0);
    std::filesystem::remove(dir_ + "/point");
    bitmaps_->write_at = GetParam().with_snap ? SNBF_ADD_SNAP_NODE : SNBF_GET_AND_CLR_BMP;
  }
  // 0 if all of it worked.
  int run() {
    if (int rc = open(); rc != 0) return rc;
    int rc = begin(GetParam().level, GetParam().with_snap);
    if (rc == 0) rc = libsnbf_capture_seal(capture_);
    if (rc == 0) put("point", "chain:7");
    if (rc == 0) rc = libsnbf_capture_commit(capture_, nullptr);
    close();
    return rc;
  }
  bool committed() const { return there("point"); }
  // No change is lost: it is marked, or in a point that the bitmap counts from.
  void check(const std::string& what) {
    SCOPED_TRACE(what);
    const bool full = GetParam().level == LIBSNBF_LEVEL_FULL;
    const bool counts = std::string(state().incr_point) == "chain:7";
    EXPECT_EQ(counts, committed());
    EXPECT_EQ(std::string(state().diff_point) == "chain:7", committed() && full);
    if (!counts) {
      EXPECT_THAT(marked(SNBF_BMP_INCR), IsSupersetOf(kIncr));
    }
    if (!counts || !full) {
      EXPECT_THAT(marked(SNBF_BMP_DIFF), IsSupersetOf(kDiff));
    }
    if (GetParam().with_snap && bitmaps_->written) {
      EXPECT_THAT(marked(SNBF_BMP_INCR), testing::Contains(15)) << "written behind the taking";
    }
    EXPECT_FALSE(pending());
    EXPECT_FALSE(a_snap_is_left());
  }
  void recover_as_the_next_does() {
    bitmaps_->die_at = bitmaps_->fail_at = 0;
    ASSERT_EQ(open(), 0);
    libsnbf_recovered found;
    EXPECT_EQ(recover(committed(), &found), 0);
    close();
  }
};

TEST_P(CaptureSteps, AfterAFailureAtAnyCommandNothingIsLost) {
  reset();
  ASSERT_EQ(run(), 0);
  const int commands = bitmaps_->commands;
  ASSERT_GT(commands, 3);
  for (int at = 1; at <= commands; ++at) {
    reset();
    bitmaps_->fail_at = at;
    const int rc = run();
    if (!pending() && !a_snap_is_left()) {
      check("command " + std::to_string(at) + " fails: " + std::to_string(rc));
    }
    recover_as_the_next_does();
    check("command " + std::to_string(at) + " fails, and the next one recovers");
  }
}

TEST_P(CaptureSteps, AfterAKillAtAnyCommandNothingIsLost) {
  reset();
  ASSERT_EQ(run(), 0);
  const int commands = bitmaps_->commands;
  for (int at = 1; at <= commands + 1; ++at) {
    reset();
    bitmaps_->die_at = at;
    const pid_t child = ::fork();
    if (child == 0) ::_exit(run() == 0 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(WEXITSTATUS(status), at <= commands ? 9 : 0) << at;
    recover_as_the_next_does();
    check("killed before command " + std::to_string(at));
  }
}

INSTANTIATE_TEST_SUITE_P(Each, CaptureSteps,
                         testing::Values(Course{LIBSNBF_LEVEL_INCR, true},
                                         Course{LIBSNBF_LEVEL_DIFF, true},
                                         Course{LIBSNBF_LEVEL_FULL, true},
                                         Course{LIBSNBF_LEVEL_INCR, false},
                                         Course{LIBSNBF_LEVEL_FULL, false}));

}  // namespace
}  // namespace snbf::played
