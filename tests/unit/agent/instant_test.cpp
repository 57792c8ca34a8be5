// SPDX-License-Identifier: GPL-2.0-only
// What an instant restore does without a device of its own.
#include "instant.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "failure.h"
#include "overlay_server.h"

namespace snbf {
namespace {

namespace fs = std::filesystem;

TEST(Instant, HasANameThatTheMapperTakes) {
  for (const char* name : {"", "a/b", "-a", ".", "control", "a b"}) {
    InstantWish wish;
    wish.name = name;
    wish.scratch = "/nonexistent";
    EXPECT_THROW(Instant{wish}, Failure) << name;
  }
}

class AfterACut : public testing::Test {
 protected:
  AfterACut() {
    char name[] = "/tmp/snbf-instant-XXXXXX";
    folder_ = ::mkdtemp(name);
    wish_.name = "no-such-device";
    wish_.image = folder_ + "/1.qcow2";
    wish_.scratch = folder_;
    wish_.target = put("target", "");
  }
  ~AfterACut() override { fs::remove_all(folder_); }

  std::string put(const std::string& name, const std::string& text) const {
    replace_file(folder_ + "/" + name, text);
    return folder_ + "/" + name;
  }

  std::string folder_;
  InstantWish wish_;
};

TEST_F(AfterACut, AWholeTargetsOverlayGoes) {
  const std::string overlay = put("no-such-device.instant.qcow2", "");
  const std::string mark =
      put("no-such-device.instant.whole", to_text({wish_.target, "/b/1.qcow2"}));
  Instant instant(wish_);
  EXPECT_EQ(instant.stage(), Stage::Whole);
  EXPECT_TRUE(instant.is_begun());
  EXPECT_EQ(instant.image(), "/b/1.qcow2");
  EXPECT_EQ(instant.percent(), 100);
  instant.finish();
  EXPECT_FALSE(fs::exists(overlay));
  EXPECT_FALSE(fs::exists(mark));
  EXPECT_EQ(Instant(wish_).stage(), Stage::None);
}

TEST_F(AfterACut, AnotherTargetIsNotTakenForTheWholeOne) {
  put("no-such-device.instant.qcow2", "");
  put("no-such-device.instant.whole", to_text({"PARTUUID=of-another", "/b/1.qcow2"}));
  try {
    Instant instant(wish_);
    FAIL() << "it was taken";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), kUnsafe);
    EXPECT_THAT(failure.what(), testing::HasSubstr("PARTUUID=of-another"));
  }
}

TEST_F(AfterACut, AnOverlayWithoutAMarkIsGoneOnWith) {
  put("no-such-device.instant.qcow2", "");
  EXPECT_EQ(Instant(wish_).stage(), Stage::LeftOver);
}

// The kernel's files, with a qemu-nbd on nbd1.
class Served : public AfterACut {
 protected:
  Served() {
    for (const char* device : {"nbd0", "nbd1", "nbd2"})
      fs::create_directories(folder_ + "/sys/block/" + device);
    fs::create_directories(folder_ + "/proc/17");
    put("sys/block/nbd1/pid", "17\n");
    runs({"/usr/bin/qemu-nbd", "--connect=/dev/nbd1", "--format=qcow2", "/s/shop.instant.qcow2"});
  }
  void runs(const std::vector<std::string>& words) const {
    std::string line;
    for (const std::string& word : words) line += word + '\0';
    put("proc/17/cmdline", line);
  }
};

TEST_F(Served, AnImageIsFoundByItsServer) {
  EXPECT_EQ(served_by("/dev/nbd1", folder_), "/s/shop.instant.qcow2");
  EXPECT_EQ(server_of("/s/shop.instant.qcow2", folder_), "/dev/nbd1");
  EXPECT_EQ(served_by("/dev/nbd0", folder_), "");
}

TEST_F(Served, AStrangersIsNotFound) {
  EXPECT_EQ(server_of("/s/shop2.instant.qcow2", folder_), "");
  EXPECT_EQ(server_of("shop.instant.qcow2", folder_), "");
  runs({"/usr/bin/nbd-client", "--connect=/dev/nbd1", "x", "/s/shop.instant.qcow2"});
  EXPECT_EQ(server_of("/s/shop.instant.qcow2", folder_), "");
  runs({"qemu-nbd", "--connect=/dev/nbd2", "--format=qcow2", "/s/shop.instant.qcow2"});
  EXPECT_EQ(server_of("/s/shop.instant.qcow2", folder_), "") << "it serves another device by now";
  fs::remove(folder_ + "/proc/17/cmdline");
  EXPECT_EQ(server_of("/s/shop.instant.qcow2", folder_), "") << "it has ended";
}

}  // namespace
}  // namespace snbf
