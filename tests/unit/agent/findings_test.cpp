// SPDX-License-Identifier: GPL-2.0-only
// What doctor makes of what it sees.
#include "findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "snaps.h"

namespace snbf {
namespace {

using testing::HasSubstr;

TEST(JudgeKernel, KnowsTheTestedOne) {
  EXPECT_EQ(judge_kernel("6.1.0-28-amd64").grade, Grade::Good);
  EXPECT_EQ(judge_kernel("6.12.9+bpo-amd64").grade, Grade::Good);
  EXPECT_EQ(judge_kernel("6.10.1").grade, Grade::Warning);
  EXPECT_EQ(judge_kernel("5.1.0").grade, Grade::Warning);
  EXPECT_EQ(judge_kernel("").grade, Grade::Warning);
}

TEST(JudgeModule, TellsWhatIsMissingAndOneCure) {
  ModuleFacts facts;
  EXPECT_THAT(judge_module(facts).text, HasSubstr("none is installed"));
  facts.file = "/lib/modules/x/snbf.ko";
  EXPECT_EQ(judge_module(facts).fix, "modprobe snbf");
  facts.signed_only = true;
  EXPECT_THAT(judge_module(facts).text, HasSubstr("is not signed"));
  facts.signer = "me";
  EXPECT_EQ(judge_module(facts).fix, "modprobe snbf");
  EXPECT_THAT(judge_module(facts).text, HasSubstr("signed by me"));
  EXPECT_EQ(judge_module(facts).grade, Grade::Bad);
  facts.loaded = true;
  EXPECT_THAT(judge_module(facts).fix, HasSubstr("devtmpfs"));
  facts.control = true;
  EXPECT_EQ(judge_module(facts).grade, Grade::Good);
  EXPECT_EQ(judge_module(facts).text, "loaded");
}

TEST(JudgeModule, TellsAnUnknownKeyFromNoSignature) {
  ModuleFacts facts;
  facts.loaded = true;
  facts.control = true;
  facts.file = "/lib/modules/x/snbf.ko";
  facts.taints = "OE";
  EXPECT_EQ(judge_module(facts).text, "loaded, not signed");
  facts.signer = "me";
  EXPECT_EQ(judge_module(facts).text,
            "loaded, not signed with a key that the kernel knows (its file is signed by me)");
  facts.taints = "O";
  EXPECT_EQ(judge_module(facts).text, "loaded");
}

TEST(JudgeMajors, LooksInTheRightSection) {
  const std::string free_ones =
      "Character devices:\n  1 mem\n 10 misc\n\nBlock devices:\n  8 sd\n259 blkext\n";
  EXPECT_EQ(judge_majors(false, free_ones).grade, Grade::Good);
  const Finding chr = judge_majors(false, "Character devices:\n100 other\n\nBlock devices:\n");
  EXPECT_EQ(chr.text, "100 is taken by other");
  EXPECT_THAT(chr.fix, HasSubstr("snbf_chr_major="));
  const Finding blk = judge_majors(false, "Character devices:\n\nBlock devices:\n100 other\n");
  EXPECT_EQ(blk.grade, Grade::Bad);
  EXPECT_THAT(blk.fix, HasSubstr("snbf_blk_major="));
  EXPECT_EQ(judge_majors(true, "Block devices:\n100 snbf\n").grade, Grade::Good);
}

TEST(JudgeFreeChunks, SaysWhetherTheyAreSkipped) {
  EXPECT_EQ(judge_free_chunks("ext4", true).grade, Grade::Good);
  EXPECT_EQ(judge_free_chunks("ext4", false).grade, Grade::Warning);
  EXPECT_THAT(judge_free_chunks("vfat", false).text, HasSubstr("no reader for vfat"));
  EXPECT_EQ(judge_free_chunks("", false).grade, Grade::Warning);
}

TEST(JudgeUuid, NamesTheTwinAndTheCure) {
  EXPECT_EQ(judge_uuid("xfs", {}).grade, Grade::Good);
  const Finding twin = judge_uuid("xfs", {"/dev/sdc1"});
  EXPECT_THAT(twin.text, HasSubstr("/dev/sdc1"));
  EXPECT_THAT(twin.fix, HasSubstr("xfs_admin"));
  EXPECT_THAT(judge_uuid("ext3", {"/dev/sdc1"}).fix, HasSubstr("tune2fs"));
}

TEST(JudgeRoom, WarnsBelowWhatIsWanted) {
  EXPECT_EQ(judge_room("x", "/d", true, 10, 10, "fix").grade, Grade::Good);
  EXPECT_EQ(judge_room("x", "/d", true, 9, 10, "fix").fix, "fix");
  EXPECT_EQ(judge_room("x", "/d", false, 0, 10, "fix").grade, Grade::Good) << "attach makes it";
}

TEST(SecondsUntilFull, FollowThePaceSoFar) {
  constexpr uint64_t kDevice = 1000000;
  EXPECT_EQ(seconds_until_full(3000, 1000, 60, kDevice), 180u);
  EXPECT_EQ(seconds_until_full(0, 1000, 60, kDevice), 0u);
  EXPECT_EQ(seconds_until_full(3000, 0, 60, kDevice), std::nullopt) << "no pace yet";
  EXPECT_EQ(seconds_until_full(3000, 1000, 0, kDevice), std::nullopt);
  EXPECT_EQ(seconds_until_full(kDevice - 1000, 1000, 60, kDevice), std::nullopt)
      << "everything else fits";
  EXPECT_TRUE(seconds_until_full(kDevice - 1001, 1000, 60, kDevice).has_value());
}

}  // namespace
}  // namespace snbf
