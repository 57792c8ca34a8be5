// SPDX-License-Identifier: GPL-2.0-only
// What a point leaves out: the rule, tried on histories of a device, and its file.
#include "skipped.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "failure.h"

namespace snbf {
namespace {

constexpr uint64_t kCount = 24;
constexpr uint64_t kSize = 4096;

Extents none() { return {kCount, kSize, kCount * kSize}; }

struct PointModel {
  std::vector<int> bytes;  // of the image through its chain, one number an extent
  Extents skipped = none();
};

// A device with a file system whose extents are taken, written and let go; its bitmaps; its points.
class History {
 public:
  explicit History(unsigned seed) : random_(seed), device_(kCount, 0) {}

  void live() {
    for (int i = 0; i < 12; ++i) {
      const uint64_t extent = random_() % kCount;
      switch (random_() % 4) {
        case 0:  // a file is written
          used_.set(extent);
          write(extent);
          break;
        case 1:  // room is taken for one, and not written
          used_.set(extent);
          break;
        case 2:  // one is deleted
          drop(extent);
          break;
        case 3:  // free space is trimmed: it changes, and nobody uses it
          drop(extent);
          write(extent);
          break;
      }
    }
  }

  void back_up() {
    const bool full = points_.empty() || random_() % 5 == 0;
    const bool differential = !full && random_() % 3 == 0;
    const bool has_map = random_() % 5 != 0;
    Extents changed = differential ? diff_ : incr_;
    if (full) changed.set_all();
    Extents used = used_;
    if (!has_map) used.set_all();
    const PointModel* parent = full ? nullptr : differential ? &points_[full_at_] : &points_.back();
    const Sorted sorted = sort_out(changed, used, parent ? &parent->skipped : nullptr);
    PointModel point;
    point.bytes = parent ? parent->bytes : std::vector<int>(kCount, 0);
    point.skipped = sorted.skipped;
    for (uint64_t extent = 0; extent < kCount; ++extent) {
      if (sorted.copied.test(extent)) point.bytes[extent] = device_[extent];
      if (sorted.zeroed.test(extent)) point.bytes[extent] = 0;
    }
    if (full) full_at_ = points_.size();
    points_.push_back(point);
    incr_ = none();
    if (full) diff_ = none();
    judge(has_map);
  }

 private:
  void write(uint64_t extent) {
    device_[extent] = ++last_written_;
    incr_.set(extent);
    diff_.set(extent);
  }
  void drop(uint64_t extent) {
    Extents one = none();
    one.set(extent);
    used_.subtract(one);
  }
  void judge(bool has_map) const {
    const PointModel& point = points_.back();
    for (uint64_t extent = 0; extent < kCount; ++extent) {
      if (point.skipped.test(extent)) {
        EXPECT_TRUE(has_map) << "without a map nothing is left out";
        EXPECT_FALSE(used_.test(extent)) << "extent " << extent << " is in use, and left out";
        EXPECT_EQ(point.bytes[extent], 0) << "extent " << extent << " is left out, and not zero";
      } else {
        EXPECT_EQ(point.bytes[extent], device_[extent]) << "extent " << extent;
      }
    }
  }

  std::mt19937 random_;
  std::vector<int> device_;
  int last_written_ = 0;
  Extents used_ = none();
  Extents incr_ = none();
  Extents diff_ = none();
  std::vector<PointModel> points_;
  size_t full_at_ = 0;
};

TEST(SortOut, EveryPointHasTheDeviceButForWhatIsFreeAndZero) {
  for (unsigned seed = 0; seed < 500 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    History history(seed);
    for (int point = 0; point < 12; ++point) {
      history.live();
      history.back_up();
    }
  }
}

TEST(SortOut, AFullPointNeedsNoZeros) {
  Extents all = none();
  all.set_all();
  const Sorted sorted = sort_out(all, none(), nullptr);
  EXPECT_TRUE(sorted.copied.none());
  EXPECT_TRUE(sorted.skipped.all());
  EXPECT_TRUE(sorted.zeroed.none());
}

class SkippedFile : public testing::Test {
 protected:
  SkippedFile() {
    char name[] = "/tmp/snbf-skipped-XXXXXX";
    directory_ = ::mkdtemp(name);
    manifest_.size = kCount * kSize;
    manifest_.extent_size = kSize;
    point_.id = 7;
    skipped_.set(0);
    skipped_.set(23);
    store_skipped(directory_, skipped_, &point_);
  }
  ~SkippedFile() override { std::filesystem::remove_all(directory_); }
  std::string path() const { return directory_ + "/" + point_.skipped_file; }

  std::string directory_;
  Manifest manifest_;
  Point point_;
  Extents skipped_ = none();
};

TEST_F(SkippedFile, ComesBackAsItWasStored) {
  EXPECT_EQ(point_.skipped_extents, 2u);
  EXPECT_EQ(point_.skipped_bytes, 2 * kSize);
  EXPECT_EQ(load_skipped(manifest_, point_, directory_).bytes(), skipped_.bytes());
  EXPECT_EQ(skipped_damage(point_, directory_), "");
}

TEST_F(SkippedFile, ThatOfAPointThatSkipsNothingIsNone) {
  store_skipped(directory_, none(), &point_);
  EXPECT_EQ(point_.skipped_file, "");
  EXPECT_TRUE(load_skipped(manifest_, point_, directory_).none());
}

TEST_F(SkippedFile, IsNotBelievedWhenItIsDamagedOrGone) {
  std::ofstream(path()) << "abc";
  EXPECT_EQ(skipped_damage(point_, directory_), "0007.skipped is not what was written");
  EXPECT_THROW(load_skipped(manifest_, point_, directory_), Failure);
  std::filesystem::remove(path());
  EXPECT_EQ(skipped_damage(point_, directory_), "0007.skipped is missing");
  EXPECT_THROW(load_skipped(manifest_, point_, directory_), Failure);
}

TEST_F(SkippedFile, OfAnotherDeviceIsRefused) {
  manifest_.size *= 16;
  EXPECT_THROW(load_skipped(manifest_, point_, directory_), Failure);
}

TEST_F(SkippedFile, StandsInTheManifest) {
  manifest_.chain = "chain";
  point_.file = "0007-full.qcow2";
  point_.whole_because = "why";
  manifest_.points = {point_};
  const std::string text = to_json_text(manifest_);
  const Manifest back = manifest_from_json(text, "m");
  EXPECT_EQ(load_skipped(back, back.points[0], directory_).bytes(), skipped_.bytes());
  EXPECT_EQ(back.points[0].whole_because, "why");
  std::string bad = text;
  const std::string name = "\"0007.skipped\"";
  bad.replace(bad.find(name), name.size(), "\"../7.skipped\"");
  EXPECT_THROW(manifest_from_json(bad, "m"), Failure) << "leads out of the directory";
}

}  // namespace
}  // namespace snbf
