// SPDX-License-Identifier: GPL-2.0-only
#include "held_chain.h"

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "failure.h"

namespace snbf {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HeldChain : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/held-chain-XXXXXX";
    folder = ::mkdtemp(name);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string folder;
};

TEST_F(HeldChain, IsHeldByEachUntilItIsReleased) {
  std::ofstream(folder + "/.reading");
  std::ofstream(folder + "/0001-full.qcow2");
  EXPECT_THAT(holders_of_chain(folder), IsEmpty());
  hold_chain(folder, "shop");
  hold_chain(folder, "archive.new");
  hold_chain(folder, "shop");
  EXPECT_THAT(holders_of_chain(folder), ElementsAre("archive.new", "shop"));
  release_chain(folder, "shop");
  release_chain(folder, "shop");
  EXPECT_THAT(holders_of_chain(folder), ElementsAre("archive.new"));
}

TEST_F(HeldChain, TheFileIsForItsOwnerAlone) {
  hold_chain(folder, "shop");
  struct stat about;
  ASSERT_EQ(::stat(hold_file(folder, "shop").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777, 0600u);
}

TEST_F(HeldChain, ANameThatIsALinkIsRefused) {
  std::filesystem::create_symlink("/etc/motd", hold_file(folder, "shop"));
  EXPECT_THROW(hold_chain(folder, "shop"), Failure);
}

}  // namespace
}  // namespace snbf
