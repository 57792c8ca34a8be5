// SPDX-License-Identifier: GPL-2.0-only
// Who asks whether a backup is under way takes nothing away from it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>

#include "files.h"

namespace snbf {
namespace {

TEST(IsLocked, WhileSomebodyHasItForHimself) {
  const std::string path = testing::TempDir() + "file-lock-test";
  EXPECT_FALSE(is_locked(path)) << "it is not there";
  EXPECT_FALSE(std::filesystem::exists(path)) << "and is not made";
  const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_FALSE(is_locked(path));
  ASSERT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_TRUE(is_locked(path));
  ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
  EXPECT_FALSE(is_locked(path));
  EXPECT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0) << "nothing is left of the question";
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace snbf
