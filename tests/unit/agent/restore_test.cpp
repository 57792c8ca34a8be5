// SPDX-License-Identifier: GPL-2.0-only
// Where a restore may write to, and what is left of one that is cut off.
#include "restore_target.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "failure.h"

namespace snbf {
namespace {

using testing::HasSubstr;

class RestoreTarget : public testing::Test {
 protected:
  RestoreTarget() {
    char name[] = "/tmp/snbf-restore-XXXXXX";
    dir_ = ::mkdtemp(name);
    std::filesystem::create_directory(dir_ + "/chain");
  }
  ~RestoreTarget() override { std::filesystem::remove_all(dir_); }
  void put(const std::string& file, const std::string& text) { std::ofstream(dir_ + file) << text; }
  std::string get(const std::string& file) const {
    std::ifstream in(dir_ + file);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Target claim(const std::string& file) const { return claim_target(dir_ + file, dir_ + "/chain"); }
  std::pair<int, std::string> refusal(const std::string& path, bool overwrite = false,
                                      uint64_t data_bytes = 0) const {
    try {
      check_target(claim(path), 1 << 20, data_bytes, overwrite);
    } catch (const Failure& failure) {
      return {failure.status(), failure.what()};
    }
    return {kDone, ""};
  }
  std::string dir_;
};

TEST_F(RestoreTarget, MayBeANewFileInAFolderThatIsThere) {
  EXPECT_EQ(refusal("/new.img").first, kDone);
  EXPECT_EQ(refusal("/nowhere/new.img").first, kFailed);
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/new.img"));
}

TEST_F(RestoreTarget, ThatHoldsSomethingAsksForAYes) {
  put("/old.img", "old");
  EXPECT_EQ(refusal("/old.img").first, kUnsafe);
  EXPECT_EQ(refusal("/old.img", true).first, kDone);
  put("/empty.img", "");
  EXPECT_EQ(refusal("/empty.img").first, kDone);
}

TEST_F(RestoreTarget, IsNeverInTheBackup) {
  EXPECT_EQ(refusal("/chain/1.qcow2", true).first, kUnsafe);
  std::filesystem::create_symlink("chain", dir_ + "/way");
  EXPECT_EQ(refusal("/way/1.qcow2", true).first, kUnsafe);
}

TEST_F(RestoreTarget, OfAnotherKindIsAMisuse) {
  EXPECT_EQ(refusal("/chain").first, kMisused);
  EXPECT_EQ(refusal("/../../dev/null").first, kMisused);
  EXPECT_EQ(refusal("/../../dev/no-such-disk").first, kFailed);
}

TEST_F(RestoreTarget, WithoutRoomIsRefusedBeforeAnythingIsWritten) {
  const auto [status, text] = refusal("/new.img", false, uint64_t{1} << 60);
  EXPECT_EQ(status, kFailed);
  EXPECT_THAT(text, HasSubstr("has room for"));
}

TEST_F(RestoreTarget, KeepsWhatItHeldUntilTheNewOneIsWhole) {
  put("/old.img", "old");
  const Target target = claim("/old.img");
  {
    TargetFile file(target);
    std::ofstream(file.path()) << "half";
  }
  EXPECT_EQ(get("/old.img"), "old");
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/old.img.restoring"));
  TargetFile file(target);
  std::ofstream(file.path()) << "whole";
  file.keep();
  EXPECT_EQ(get("/old.img"), "whole");
  EXPECT_EQ(file.path(), target.path);
}

TEST_F(RestoreTarget, IsOneRestoresAtATime) {
  const Target target = claim("/new.img");
  const TargetFile first(target);
  try {
    const TargetFile second(target);
    FAIL() << "two at once";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), kBusy);
  }
  EXPECT_TRUE(std::filesystem::exists(first.path()));
}

}  // namespace
}  // namespace snbf
