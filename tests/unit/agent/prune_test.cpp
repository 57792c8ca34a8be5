// SPDX-License-Identifier: GPL-2.0-only
// Points taken out of a real chain of images, and cut off at every step.
#include "prune.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "failure.h"
#include "files.h"
#include "image.h"
#include "signals.h"

namespace snbf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kSize = 1 << 20;
constexpr int64_t kDay = 86400;
constexpr int64_t kNoon = 1700049600;  // a Wednesday, 12:00 UTC

Manifest chain(const std::vector<std::pair<Level, uint64_t>>& points) {
  Manifest manifest;
  manifest.chain = "chain";
  manifest.size = kSize;
  manifest.extent_size = 65536;
  for (const auto& [level, parent] : points) {
    Point point;
    point.id = manifest.next_id();
    point.level = level;
    point.file = std::to_string(point.id) + ".qcow2";
    if (parent) point.parent = parent;
    point.created = kNoon + static_cast<int64_t>(point.id) * kDay;
    manifest.points.push_back(point);
  }
  return manifest;
}

constexpr Level kFull = Level::Full;
constexpr Level kIncr = Level::Incremental;
constexpr Level kDiff = Level::Differential;

std::set<uint64_t> kept(const Manifest& manifest, Retention retention) {
  return kept_points(manifest, retention);
}

class InUtc : public testing::Test {
 protected:
  InUtc() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};
using KeptPoints = InUtc;

TEST_F(KeptPoints, TheNewestIsAlwaysThere) {
  const Manifest manifest = chain({{kFull, 0}, {kIncr, 1}, {kIncr, 2}});
  EXPECT_THAT(kept(manifest, {}), ElementsAre(3));
  EXPECT_THAT(kept(manifest, {.last = 2}), ElementsAre(2, 3));
  EXPECT_THAT(kept(manifest, {.last = 9}), ElementsAre(1, 2, 3));
  EXPECT_THAT(kept(Manifest{}, {.last = 9}), IsEmpty());
}

TEST_F(KeptPoints, OfEachDayWeekAndMonthTheNewest) {
  Manifest manifest = chain(std::vector<std::pair<Level, uint64_t>>(6, {kFull, 0}));
  const std::vector<int64_t> days = {0, 0, 3, 4, 5, 20};  // Wed, Wed, Sat, Sun, Mon, 5 December
  for (size_t i = 0; i < days.size(); ++i) {
    manifest.points[i].created = kNoon + days[i] * kDay + static_cast<int64_t>(i);
  }
  EXPECT_THAT(kept(manifest, {.daily = 9}), ElementsAre(2, 3, 4, 5, 6));
  EXPECT_THAT(kept(manifest, {.daily = 2}), ElementsAre(5, 6));
  EXPECT_THAT(kept(manifest, {.weekly = 9}), ElementsAre(4, 5, 6)) << "Monday begins a week";
  EXPECT_THAT(kept(manifest, {.monthly = 9}), ElementsAre(5, 6));
  EXPECT_THAT(kept(manifest, {.last = 1, .weekly = 2}), ElementsAre(5, 6));
}

std::vector<std::string> steps(const PrunePlan& plan) {
  std::vector<std::string> found;
  for (const PruneStep& step : plan.steps) {
    found.push_back(step.kind == PruneStep::Kind::Remove
                        ? "-" + std::to_string(step.point)
                        : std::to_string(step.point) + ">" + std::to_string(step.into));
  }
  return found;
}

TEST(PlanPrune, MergesWhatIsStoodOnAndRemovesWhatIsNot) {
  EXPECT_THAT(steps(plan_prune(chain({{kFull, 0}, {kIncr, 1}, {kIncr, 2}}), {3})),
              ElementsAre("1>2", "2>3"));
  EXPECT_THAT(steps(plan_prune(chain({{kFull, 0}, {kIncr, 1}, {kFull, 0}}), {3})),
              ElementsAre("-2", "-1"));
  EXPECT_THAT(steps(plan_prune(chain({{kFull, 0}, {kIncr, 1}, {kIncr, 2}}), {1, 2, 3})), IsEmpty());
}

TEST(PlanPrune, WhatSeveralStandOnStays) {
  const Manifest manifest = chain({{kFull, 0}, {kDiff, 1}, {kDiff, 1}});
  const PrunePlan plan = plan_prune(manifest, {2, 3});
  EXPECT_THAT(steps(plan), IsEmpty());
  EXPECT_THAT(plan.needed, ElementsAre(1));
  EXPECT_THAT(steps(plan_prune(manifest, {3})), ElementsAre("-2", "1>3"));
}

class PruneFiles : public testing::Test {
 protected:
  PruneFiles() {
    char name[] = "/tmp/snbf-prune-XXXXXX";
    folder_ = ::mkdtemp(name);
    directory_ = folder_ + "/chain";
  }
  ~PruneFiles() override { std::filesystem::remove_all(folder_); }

  // Four points; each overwrites parts of the ones before it and zeroes one.
  void build() {
    std::filesystem::remove_all(directory_);
    if (!std::filesystem::exists(folder_ + "/made")) make();
    std::filesystem::copy(folder_ + "/made", directory_, std::filesystem::copy_options::recursive);
    reread();
  }
  void make() {
    std::filesystem::create_directories(directory_);
    manifest_ = chain({{kFull, 0}, {kIncr, 1}, {kIncr, 2}, {kIncr, 3}});
    for (Point& point : manifest_.points) {
      const int n = static_cast<int>(point.id);
      create_image(path(point), kSize, 65536, n > 1 ? std::to_string(n - 1) + ".qcow2" : "");
      std::vector<std::string> command{"qemu-io", "-f", "qcow2"};
      const std::string pattern = std::to_string(16 + n);
      for (int at : {0, n, n + 4}) {
        command.push_back("-c");
        command.push_back("write -q -P " + pattern + " " + std::to_string(at * 65536) + " 65536");
      }
      command.push_back("-c");
      command.push_back("write -q -z " + std::to_string((n + 3) * 65536) + " 65536");
      command.push_back(path(point));
      run_or_throw(command);
      point.skipped_file = std::to_string(n) + ".skipped";
      replace_file(directory_ + "/" + point.skipped_file, "x");
      point.file_bytes = std::filesystem::file_size(path(point));
      point.hash = hash_file(path(point));
    }
    replace_file(manifest_path(directory_), to_json_text(manifest_));
    std::filesystem::rename(directory_, folder_ + "/made");
  }
  std::string path(const Point& point) const { return directory_ + "/" + point.file; }
  std::string contents(uint64_t id) const {
    std::string bytes(kSize, '\0');
    ImageReader image(path(*manifest_.find(id)));
    image.read(reinterpret_cast<uint8_t*>(bytes.data()), kSize, 0);
    return bytes;
  }
  std::vector<uint64_t> ids() const {
    std::vector<uint64_t> found;
    for (const Point& point : manifest_.points) found.push_back(point.id);
    return found;
  }
  void prune(const std::set<uint64_t>& keep, int die_before = 0) {
    int step = 0;
    Pruner pruner(directory_, &manifest_, [&] {
      if (++step == die_before) throw std::runtime_error("killed");
    });
    pruner.mend();
    for (const PruneStep& each : plan_prune(manifest_, keep).steps) pruner.run(each);
    steps_ = step;
  }
  static std::function<void()> dying_before(int step) {
    return [step, now = 0]() mutable {
      if (++now == step) throw std::runtime_error("killed");
    };
  }
  void reread() { manifest_ = *read_manifest(directory_); }
  size_t files() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory_), {}));
  }
  void expect_sound() const {
    for (const Point& point : manifest_.points) {
      EXPECT_EQ(chain_damage(manifest_, point, directory_, true), "");
    }
  }

  std::string folder_;
  std::string directory_;
  Manifest manifest_;
  int steps_ = 0;
};

TEST_F(PruneFiles, WhatStaysReadsAsBefore) {
  build();
  const std::string second = contents(2);
  const std::string fourth = contents(4);
  prune({2, 4});
  EXPECT_THAT(ids(), ElementsAre(2, 4));
  EXPECT_EQ(contents(2), second);
  EXPECT_EQ(contents(4), fourth);
  EXPECT_EQ(manifest_.points[0].level, kFull);
  EXPECT_EQ(manifest_.points[0].merged_from, 1u);
  EXPECT_EQ(manifest_.points[1].parent, 2u);
  EXPECT_EQ(manifest_.points[1].level, kIncr);
  expect_sound();
  EXPECT_EQ(files(), 5u) << "two images, two lists, the manifest";
  reread();
  expect_sound();
}

TEST_F(PruneFiles, CutOffAtEachStepTheNextOneGoesOn) {
  build();
  const std::string fourth = contents(4);
  prune({4});
  const int steps = steps_;
  ASSERT_GT(steps, 10);
  for (int at = 1; at <= steps; ++at) {
    SCOPED_TRACE("cut off before step " + std::to_string(at));
    build();
    EXPECT_THROW(prune({4}, at), std::runtime_error);
    reread();
    EXPECT_EQ(chain_damage(manifest_, *manifest_.find(4), directory_, true), "");
    EXPECT_EQ(contents(4), fourth) << "it restores meanwhile";
    prune({4});
    EXPECT_THAT(ids(), ElementsAre(4));
    EXPECT_EQ(contents(4), fourth);
    EXPECT_EQ(files(), 3u);
    expect_sound();
  }
}

TEST_F(PruneFiles, ACommitThatWasCutOffIsDoneAgain) {
  build();
  const std::string second = contents(2);
  int step = 0;
  Pruner pruner(directory_, &manifest_, [&] {
    if (++step == 2) throw std::runtime_error("killed");
  });
  EXPECT_THROW(pruner.run({PruneStep::Kind::Merge, 1, 2}), std::runtime_error);
  // Half of the second point's clusters have come down.
  run_or_throw({"qemu-io", "-f", "qcow2", "-c", "write -q -P 18 0 65536", directory_ + "/1.qcow2"});
  reread();
  EXPECT_EQ(chain_damage(manifest_, manifest_.points[1], directory_, true), "");
  EXPECT_EQ(contents(2), second);
  EXPECT_NE(chain_damage(manifest_, manifest_.points[0], directory_, true), "")
      << "the first is no point any more";
  prune({2, 3, 4});
  EXPECT_EQ(contents(2), second);
  expect_sound();
}

TEST_F(PruneFiles, AFileThatIsGoneBeforeTheMergeHadIsMissed) {
  build();
  manifest_.merge = Merge{1, 2, "", 0};
  std::filesystem::remove(directory_ + "/1.qcow2");
  EXPECT_EQ(chain_damage(manifest_, *manifest_.find(4), directory_, false), "1.qcow2 is missing");
}

TEST_F(PruneFiles, AMergedFileThatIsNotWhatWasMadeIsNoticed) {
  build();
  manifest_.merge = Merge{1, 2, hash_file(directory_ + "/1.qcow2"),
                          std::filesystem::file_size(directory_ + "/1.qcow2")};
  std::filesystem::rename(directory_ + "/1.qcow2", directory_ + "/2.qcow2");
  EXPECT_EQ(chain_damage(manifest_, *manifest_.find(4), directory_, true), "");
  std::ofstream(directory_ + "/2.qcow2", std::ios::app) << "x";
  EXPECT_NE(chain_damage(manifest_, *manifest_.find(4), directory_, true), "");
}

TEST_F(PruneFiles, ASignalEndsAMergeAndTheNextOneGoesOn) {
  build();
  const std::string fourth = contents(4);
  {
    const SignalsNoted signals;
    int step = 0;
    Pruner pruner(directory_, &manifest_, [&] {
      if (SignalsNoted::any()) throw std::runtime_error("interrupted");
      if (++step == 2) ::raise(SIGTERM);
    });
    EXPECT_THROW(pruner.run({PruneStep::Kind::Merge, 1, 2}), std::runtime_error);
  }
  reread();
  EXPECT_TRUE(manifest_.merge);
  EXPECT_EQ(contents(4), fourth);
  prune({4});
  EXPECT_EQ(contents(4), fourth);
  expect_sound();
}

TEST_F(PruneFiles, WithoutRoomForItNoMergeBegins) {
  build();
  const uint64_t upper = std::filesystem::file_size(directory_ + "/2.qcow2");
  Pruner(
      directory_, &manifest_, [] {}, [&](const std::string&) { return upper; })
      .run({PruneStep::Kind::Merge, 1, 2});
  EXPECT_THAT(ids(), ElementsAre(2, 3, 4));

  build();
  Pruner cramped(
      directory_, &manifest_, [] {}, [&](const std::string&) { return upper - 1; });
  try {
    cramped.run({PruneStep::Kind::Merge, 1, 2});
    FAIL() << "there is no room";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find("is free in " + directory_), std::string::npos)
        << failure.what();
  }
  reread();
  EXPECT_FALSE(manifest_.merge);
  expect_sound();
}

TEST_F(PruneFiles, WhileAMergeWaitsForRoomWhatGoesWithoutItGoes) {
  build();
  EXPECT_THROW(Pruner(directory_, &manifest_, dying_before(2)).run({PruneStep::Kind::Merge, 1, 2}),
               std::runtime_error);
  reread();
  ASSERT_TRUE(manifest_.merge);
  EXPECT_EQ(settled(manifest_).points.size(), 3u);
  {
    Pruner pruner(directory_, &manifest_);
    const auto removed = pruner.remove_meanwhile({3});
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed[0].point, 4u);
    EXPECT_TRUE(pruner.remove_meanwhile({}).size() == 1u) << "3, but not what is being merged";
  }
  reread();
  EXPECT_TRUE(manifest_.merge);
  EXPECT_THAT(ids(), ElementsAre(1, 2));
  EXPECT_EQ(files(), 5u) << "two images, two lists, the manifest";
  prune({2});
  EXPECT_THAT(ids(), ElementsAre(2));
  expect_sound();
}

TEST_F(PruneFiles, ASignalEndsTheLookAtALargeChain) {
  build();
  const SignalsNoted signals;
  ::raise(SIGTERM);
  EXPECT_THROW(hash_file(directory_ + "/1.qcow2"), Failure);
}

TEST_F(PruneFiles, ADamagedChainIsNotMerged) {
  build();
  std::ofstream(directory_ + "/2.qcow2", std::ios::app) << "x";
  EXPECT_THROW(prune({4}), Failure);
  reread();
  EXPECT_FALSE(manifest_.merge);
  EXPECT_THAT(ids(), ElementsAre(1, 2, 3, 4));
}

}  // namespace
}  // namespace snbf
