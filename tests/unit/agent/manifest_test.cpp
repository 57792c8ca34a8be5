// SPDX-License-Identifier: GPL-2.0-only
// The manifest, and the decision what the next backup is.
#include "manifest.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "failure.h"
#include "files.h"
#include "plan.h"
#include "reasons.h"
#include "store.h"

namespace snbf {
namespace {

Point make_point(uint64_t id, Level level, std::optional<uint64_t> parent) {
  Point point;
  point.id = id;
  point.level = level;
  point.parent = parent;
  point.file = std::to_string(id) + ".qcow2";
  point.source = "frozen";
  point.hash = "00";
  return point;
}

Manifest chain_of_three() {
  Manifest manifest;
  manifest.chain = "chain";
  manifest.node = "data";
  manifest.node_uuid = "{u}";
  manifest.size = 1 << 30;
  manifest.extent_size = 65536;
  manifest.points = {make_point(1, Level::Full, std::nullopt), make_point(2, Level::Incremental, 1),
                     make_point(3, Level::Incremental, 2)};
  return manifest;
}

std::vector<uint64_t> ids(const std::vector<const Point*>& points) {
  std::vector<uint64_t> found;
  for (const Point* point : points) found.push_back(point->id);
  return found;
}

TEST(Manifest, ComesBackFromItsText) {
  Manifest manifest = chain_of_three();
  manifest.points[0].why = kWhyFirst;
  manifest.points[1].source = "moving";
  manifest.points[1].bytes = 123;
  const Manifest back = manifest_from_json(to_json_text(manifest), "m");
  EXPECT_EQ(to_json_text(back), to_json_text(manifest));
  EXPECT_TRUE(back.points[0].exact());
  EXPECT_FALSE(back.points[1].exact());
  EXPECT_EQ(back.next_id(), 4u);
}

TEST(Manifest, RefusesWhatIsNotItsOwn) {
  const std::string good = to_json_text(chain_of_three());
  const auto with = [&good](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  EXPECT_NO_THROW(manifest_from_json(good, "m"));
  EXPECT_THROW(manifest_from_json("", "m"), Failure);
  EXPECT_THROW(manifest_from_json("[]", "m"), Failure);
  EXPECT_THROW(manifest_from_json("{}", "m"), Failure);
  EXPECT_THROW(manifest_from_json(good.substr(0, good.size() / 2), "m"), Failure);
  EXPECT_NO_THROW(manifest_from_json(with("\"snbf_manifest\": 1", "\"snbf_manifest\": 2"), "m"));
  EXPECT_THROW(manifest_from_json(with("\"snbf_manifest\": 1", "\"snbf_manifest\": 3"), "m"),
               Failure);
  EXPECT_THROW(manifest_from_json(with("1.qcow2", "../1.qcow2"), "m"), Failure)
      << "leads out of it";
  EXPECT_THROW(manifest_from_json(with("\"id\": 2", "\"id\": 1"), "m"), Failure)
      << "an id used twice";
}

TEST(Manifest, IsOfTheFirstFormatOnlyWhileEveryPointHoldsAll) {
  const auto format = [](const Manifest& manifest) {
    const std::string text = to_json_text(manifest);
    const std::string key = "\"snbf_manifest\": ";
    return text.substr(text.find(key) + key.size(), 1);
  };
  Manifest manifest = chain_of_three();
  EXPECT_EQ(format(manifest), "1");
  manifest.points[1].skipped_file = "0002.skipped";
  EXPECT_EQ(format(manifest), "2");
  EXPECT_EQ(manifest_from_json(to_json_text(manifest), "m").points[1].skipped_file, "0002.skipped");
  manifest = chain_of_three();
  manifest.merge = Merge{1, 2, "", 0};
  EXPECT_EQ(format(manifest), "2");
  manifest = chain_of_three();
  manifest.target = "nbd://disk";
  EXPECT_EQ(format(manifest), "2");
}

TEST(Manifest, WhatAMergeAndATargetLeaveComesBack) {
  Manifest manifest = chain_of_three();
  manifest.merge = Merge{1, 2, "aa", 77};
  manifest.garbage = {"0001.skipped"};
  manifest.points[2].merged_from = 1;
  manifest.target = "nbd://disk";
  manifest.unfinished = "incr";
  manifest.samples = {{5, "bb"}};
  const Manifest back = manifest_from_json(to_json_text(manifest), "m");
  EXPECT_EQ(to_json_text(back), to_json_text(manifest));
  EXPECT_EQ(back.samples.at(0).extent, 5u);
  EXPECT_EQ(back.merge->hash, "aa");
  manifest.garbage = {"../../etc/passwd"};
  EXPECT_THROW(manifest_from_json(to_json_text(manifest), "m"), Failure) << "leads out of it";
}

TEST(Manifest, LineageGoesFromTheFullPointToTheAskedOne) {
  const Manifest manifest = chain_of_three();
  EXPECT_EQ(ids(manifest.lineage(manifest.points[2])), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(ids(manifest.lineage(manifest.points[0])), (std::vector<uint64_t>{1}));
}

TEST(Manifest, ALineageWithAHoleOrARingIsNone) {
  Manifest manifest = chain_of_three();
  manifest.points[1].parent = 9;
  EXPECT_TRUE(manifest.lineage(manifest.points[2]).empty());
  manifest.points[1].parent = 3;
  EXPECT_TRUE(manifest.lineage(manifest.points[2]).empty());
}

class ChainFiles : public testing::Test {
 protected:
  ChainFiles() {
    char name[] = "/tmp/snbf-chain-XXXXXX";
    directory_ = ::mkdtemp(name);
    for (Point& point : manifest_.points) {
      std::ofstream(path(point)) << "contents of " << point.id;
      point.file_bytes = std::filesystem::file_size(path(point));
      point.hash = hash_file(path(point));
    }
  }
  ~ChainFiles() override { std::filesystem::remove_all(directory_); }
  std::string path(const Point& point) const { return directory_ + "/" + point.file; }
  std::string damage(bool contents) const {
    return chain_damage(manifest_, manifest_.points[2], directory_, contents);
  }
  std::string directory_;
  Manifest manifest_ = chain_of_three();
};

TEST_F(ChainFiles, WholeChainHasNoDamage) { EXPECT_EQ(damage(true), ""); }

TEST_F(ChainFiles, AMissingParentIsNamed) {
  std::filesystem::remove(path(manifest_.points[1]));
  EXPECT_EQ(damage(false), "2.qcow2 is missing");
}

TEST_F(ChainFiles, AnotherSizeIsSeenAtAGlance) {
  std::ofstream(path(manifest_.points[0]), std::ios::app) << "x";
  EXPECT_NE(damage(false), "");
}

TEST_F(ChainFiles, OtherContentsOfTheSameSizeNeedALook) {
  std::ofstream(path(manifest_.points[0])) << "contents of 9";
  EXPECT_EQ(damage(false), "");
  EXPECT_EQ(damage(true), "1.qcow2 is not what was written");
}

class PlanBackup : public testing::Test {
 protected:
  PlanBackup() {
    situation_.manifest = &manifest_;
    situation_.incr_point = "chain:3";
    situation_.diff_point = "chain:1";
    situation_.size = manifest_.size;
    situation_.extent_size = manifest_.extent_size;
  }
  Plan plan() const { return plan_backup(situation_); }
  Manifest manifest_ = chain_of_three();
  Situation situation_;
};

TEST_F(PlanBackup, GoesOnFromTheNewestPoint) {
  EXPECT_EQ(plan().level, Level::Incremental);
  EXPECT_EQ(plan().parent->id, 3u);
}

TEST_F(PlanBackup, ADifferentialStandsOnTheLastFullOne) {
  situation_.asked = Level::Differential;
  situation_.damage_newest = "3.qcow2 is missing";  // does not matter to it
  situation_.incr_point = "elsewhere:1";
  EXPECT_EQ(plan().level, Level::Differential);
  EXPECT_EQ(plan().parent->id, 1u);
}

TEST_F(PlanBackup, ADifferentialStandsOnAFullOneThatOlderOnesWereMergedInto) {
  situation_.asked = Level::Differential;
  situation_.diff_point = "chain:1";
  manifest_.points.erase(manifest_.points.begin());
  manifest_.points[0].level = Level::Full;
  manifest_.points[0].parent.reset();
  EXPECT_EQ(plan().level, Level::Full);
  manifest_.points[0].merged_from = 1;
  EXPECT_EQ(plan().level, Level::Differential);
  EXPECT_EQ(plan().parent->id, 2u);
}

TEST_F(PlanBackup, SaysWhyItIsFull) {
  const auto why = [this](auto change) {
    const Situation kept = situation_;
    change(situation_);
    const Plan made = plan();
    situation_ = kept;
    EXPECT_EQ(made.level, Level::Full);
    EXPECT_EQ(made.parent, nullptr);
    return made.why;
  };
  const Manifest empty;
  EXPECT_EQ(why([](Situation& s) { s.manifest = nullptr; }), kWhyFirst);
  EXPECT_EQ(why([&](Situation& s) { s.manifest = &empty; }), kWhyFirst);
  EXPECT_EQ(why([](Situation& s) { s.asked = Level::Full; }), kWhyAsked);
  EXPECT_EQ(why([](Situation& s) { s.size += 512; }), kWhySize);
  EXPECT_EQ(why([](Situation& s) { s.extent_size *= 2; }), kWhyExtent);
  EXPECT_EQ(why([](Situation& s) { s.distrust = LIBSNBF_WHY_DIRTY; }), LIBSNBF_WHY_DIRTY);
  EXPECT_EQ(why([](Situation& s) { s.damage_newest = "2.qcow2 is missing"; }), kWhyChain);
  EXPECT_EQ(why([](Situation& s) { s.incr_point = "chain:2"; }), kWhyOtherChain);
  EXPECT_EQ(why([](Situation& s) { s.incr_point = ""; }), kWhyOtherChain);
  EXPECT_EQ(why([](Situation& s) { s.incr_point = kPointByHand; }), kWhyByHand);
}

TEST(ReasonText, EveryCodeHasASentence) {
  static constexpr const char* kCodes[] = {kWhyAsked,
                                           kWhyWhole,
                                           kWhyFirst,
                                           kWhyChain,
                                           kWhyOtherChain,
                                           kWhySize,
                                           kWhyExtent,
                                           kWhyByHand,
                                           kWhyCrash,
                                           LIBSNBF_WHY_MISSING,
                                           LIBSNBF_WHY_CORRUPT,
                                           LIBSNBF_WHY_DIRTY,
                                           LIBSNBF_WHY_SIZE,
                                           LIBSNBF_WHY_CHECKSUM,
                                           LIBSNBF_WHY_UNCLEAN,
                                           LIBSNBF_WHY_OUTSIDE,
                                           LIBSNBF_WHY_OTHER_NODE,
                                           LIBSNBF_SNAP_RUNS,
                                           LIBSNBF_SNAP_UNCLEAN,
                                           LIBSNBF_SNAP_NODE_STARTED,
                                           LIBSNBF_SNAP_NODE_WRITTEN,
                                           LIBSNBF_SNAP_NODE_SIZE,
                                           LIBSNBF_SNAP_FILES,
                                           LIBSNBF_SNAP_FILES_CHANGED,
                                           LIBSNBF_SNAP_PLACE,
                                           LIBSNBF_SNAP_NAME,
                                           LIBSNBF_SNAP_NEWER};
  for (const char* code : kCodes) {
    EXPECT_NE(reason_text(code), code);
  }
}

}  // namespace
}  // namespace snbf
