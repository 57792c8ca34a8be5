// SPDX-License-Identifier: GPL-2.0-only
// What the answer of the driver's self-test means.
#include "selftest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "kernel_log.h"

namespace snbf {
namespace {

using testing::HasSubstr;
using testing::StrEq;

TEST(DriverLine, IsOneThatNamesARoutineOfTheDriver) {
  EXPECT_EQ(driver_line("3,5,7,-;ERROR: snbf_blkbmp_test(): Bit 7 is\n SUBSYSTEM=x\n"),
            "snbf_blkbmp_test(): Bit 7 is");
  EXPECT_EQ(driver_line("6,5,7,-; ext2_reader_init(): no"), "ext2_reader_init(): no");
  EXPECT_EQ(driver_line("3,5,7,-;ERROR: Oops. Bit 3 of chunk bitmap is clear"),
            "Oops. Bit 3 of chunk bitmap is clear");
  EXPECT_EQ(driver_line("4,5,7,-;EXT4-fs (vda): mounted"), "");
  EXPECT_EQ(driver_line("4,5,7,-;vfs_thing(): mounted by snbf_x"), "");
  EXPECT_EQ(driver_line("4,5,7,-;some other_reader_x(): hello"), "");
  EXPECT_EQ(driver_line("no record"), "");
}

TEST(JudgeSelftest, GoodNewsIsShort) {
  const Verdict verdict = judge_selftest(0, {}, "ext4, labelled data");
  EXPECT_THAT(verdict.code, StrEq("good"));
  EXPECT_EQ(verdict.status, kDone);
  EXPECT_THAT(verdict.text, HasSubstr("ext4, labelled data"));
  EXPECT_EQ(verdict.fix, "");
}

TEST(JudgeSelftest, EachKindOfContradictionIsADifference) {
  for (const char* line :
       {"Oops. Bit 3 of chunk bitmap is clear, but some bits in the block bitmap are set.",
        "Oops. Bit 3 of chunk bitmap is set, but all bits in the block bitmap are clear.",
        "snbf_blkbmp_test(): Bit 3 is misrepresented by blkbmp: 0 instead of 1",
        "snbf_blkbmp_test(): Bitmap inconsistency for chunk 3: expected 1, got 0",
        "snbf_blkbmp_test(): Failed to downsample bitmap for extent of size 8: bit 3 doesn't "
        "match."}) {
    const Verdict verdict = judge_selftest(-EINVAL, {"snbf_x(): before", line}, "xfs");
    EXPECT_THAT(verdict.code, StrEq("wrong")) << line;
    EXPECT_EQ(verdict.status, kDiffers);
  }
}

TEST(JudgeSelftest, WhatNoReaderClaimsIsNoContradiction) {
  const Verdict verdict = judge_selftest(-EINVAL,
                                         {"snbf_blkbmp_test(): Cannot recognize file system on "
                                          "hdd(8, 1). Datablocks will be disabled"},
                                         "");
  EXPECT_THAT(verdict.code, StrEq("unknown"));
  EXPECT_EQ(verdict.status, kFailed);
  EXPECT_THAT(verdict.text, HasSubstr("nothing that is recognised"));
}

TEST(JudgeSelftest, OtherAnswersKeepTheirStatus) {
  EXPECT_EQ(judge_selftest(-EBUSY, {}, "ext4").status, kBusy);
  EXPECT_EQ(judge_selftest(-EIO, {}, "ext4").status, kFailed);
  EXPECT_EQ(judge_selftest(-ENOTTY, {}, "ext4").status, kNoDriver);
  EXPECT_THAT(judge_selftest(-EINVAL, {}, "ext4").code, StrEq("failed"))
      << "without a line nobody knows what it was";
}

}  // namespace
}  // namespace snbf
