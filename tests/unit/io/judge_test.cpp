#include "io/judge.h"

#include <gtest/gtest.h>

namespace snbf {
namespace {

TEST(JudgeWrite, ABrokenImageNeedsNoCopies) {
  EXPECT_EQ(judge_write(false, {4, 4, 0}), Verdict::Pass);
  EXPECT_EQ(judge_write(false, {4, 0, 0}), Verdict::Pass);
}

TEST(JudgeWrite, WhatIsCopiedAlreadyPasses) {
  EXPECT_EQ(judge_write(true, {4, 4, 4}), Verdict::Pass);
  EXPECT_EQ(judge_write(true, {4, 0, 4}), Verdict::Pass);
}

TEST(JudgeWrite, OneUsedChunkAmongUncopiedOnesHolds) {
  EXPECT_EQ(judge_write(true, {4, 1, 0}), Verdict::Hold);
  EXPECT_EQ(judge_write(true, {4, 1, 3}), Verdict::Hold);
  EXPECT_EQ(judge_write(true, {1, 1, 0}), Verdict::Hold);
}

TEST(JudgeWrite, WhatTheFileSystemDoesNotUseIsTheOlderSnapsMatter) {
  EXPECT_EQ(judge_write(true, {4, 0, 0}), Verdict::AskOlderSnap);
  EXPECT_EQ(judge_write(true, {4, 0, 3}), Verdict::AskOlderSnap);
}

}  // namespace
}  // namespace snbf
