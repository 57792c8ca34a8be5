#include "util/path.h"

#include "parts_rig.h"

namespace snbf::sim {
namespace {

SIM_TEST(MakeNode, MakesADeviceFileOfEitherKind) {
  LoggedParts parts;
  ASSERT_EQ(snbf_mknod("/blk", 1, 100, 7), 0);
  ASSERT_EQ(snbf_mknod("/chr", 0, 10, 3), 0);
  EXPECT_TRUE(sim.log().contains("snbf_mknod(): fname=/blk, block=1, dev=(100, 7)"));
  struct Expected {
    const char* path;
    int mode;
    plat_devt device;
  };
  for (const Expected& expected : {Expected{"/blk", PLAT_S_IFBLK | 0600, dev(100, 7)},
                                   Expected{"/chr", PLAT_S_IFCHR | 0600, dev(10, 3)}}) {
    plat_path* path = nullptr;
    ASSERT_EQ(snbf_get_file_dentry(expected.path, 0, &path), 0);
    ASSERT_NE(path, nullptr);
    plat_path_info info = {};
    snbf_plat_path_info(path, &info);
    EXPECT_EQ(info.mode, expected.mode);
    EXPECT_EQ(info.device, expected.device);
    snbf_plat_path_put(path);
  }
}

SIM_TEST(MakeNode, ANameThatExistsIsAFailure) {
  LoggedParts parts;
  ASSERT_EQ(snbf_mknod("/a", 1, 100, 7), 0);
  EXPECT_EQ(snbf_mknod("/a", 1, 100, 8), -EEXIST);
  EXPECT_EQ(sim.log().count("snbf_mknod(): Failed to mknod /a: rc=-17", 3), 1);
}

SIM_TEST(MakeNode, NamesTheStepThatFailed) {
  LoggedParts parts;
  EXPECT_EQ(snbf_mknod("/none/a", 1, 100, 7), -ENOENT);
  EXPECT_EQ(sim.log().count("snbf_mknod(): Failed to lookup parent of /none/a: rc=-2", 3), 1);
  EXPECT_EQ(snbf_mknod("/..", 1, 100, 7), -EEXIST);
  EXPECT_EQ(sim.log().count("snbf_mknod(): Failed to lookup /..: rc=-17", 3), 1);
  EXPECT_EQ(snbf_mknod("/a/", 1, 100, 7), -ENOENT);
  EXPECT_EQ(sim.log().count("snbf_mknod(): Failed to lookup /a/: rc=-2", 3), 1);
  sim.fail_nth(Fault::Mknod, 1, -ENOSPC);
  EXPECT_EQ(snbf_mknod("/a", 1, 100, 7), -ENOSPC);
  EXPECT_EQ(sim.log().count("snbf_mknod(): Failed to mknod /a: rc=-28", 3), 1);
  // Whatever failed, the parent is free again.
  EXPECT_EQ(snbf_mknod("/a", 1, 100, 7), 0);
}

SIM_TEST(Unlink, RemovesAName) {
  LoggedParts parts;
  ASSERT_EQ(sim.write_file("/a", Bytes{1}), 0);
  EXPECT_EQ(snbf_unlink("/a"), 0);
  EXPECT_FALSE(sim.exists("/a"));
  EXPECT_TRUE(sim.log().contains("snbf_unlink(): fname=/a"));
}

SIM_TEST(Unlink, IsQuietAboutANameThatIsGone) {
  LoggedParts parts;
  EXPECT_EQ(snbf_unlink("/none"), -ENOENT);
  EXPECT_FALSE(sim.log().has_errors()) << sim.log().dump();
}

SIM_TEST(Unlink, NamesTheStepThatFailed) {
  LoggedParts parts;
  ASSERT_EQ(sim.write_file("/a", Bytes{1}), 0);
  EXPECT_EQ(snbf_unlink("/none/a"), -ENOENT);
  EXPECT_EQ(sim.log().count("snbf_unlink(): Failed to lookup parent of /none/a: rc=-2", 3), 1);
  EXPECT_EQ(snbf_unlink("/."), -EEXIST);
  EXPECT_EQ(sim.log().count("snbf_unlink(): Failed to lookup /.: rc=-17", 3), 1);
  sim.fail_nth(Fault::Unlink, 1, -EIO);
  EXPECT_EQ(snbf_unlink("/a"), -EIO);
  EXPECT_EQ(sim.log().count("snbf_unlink(): Failed to unlink /a: rc=-5", 3), 1);
  EXPECT_EQ(snbf_unlink("/a"), 0);
}

SIM_TEST(FileDentry, FindsFollowsAndRefuses) {
  LoggedParts parts;
  ASSERT_EQ(snbf_mknod("/a", 1, 100, 7), 0);
  ASSERT_EQ(sim.make_symlink("/a", "/link"), 0);
  plat_path* path = nullptr;
  ASSERT_EQ(snbf_get_file_dentry("/link", 1, &path), 0);
  plat_path_info info = {};
  snbf_plat_path_info(path, &info);
  EXPECT_EQ(info.device, dev(100, 7));
  snbf_plat_path_put(path);
  EXPECT_TRUE(sim.log().contains("snbf_get_file_dentry(): /link: dentry=("));

  EXPECT_EQ(snbf_get_file_dentry("/none", 0, &path), -ENOENT);
  EXPECT_EQ(path, nullptr);
  EXPECT_FALSE(sim.log().has_errors());
  EXPECT_EQ(snbf_get_file_dentry("a", 0, &path), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_get_file_dentry(): Can't lookup a: must be an absolute path.", 3),
            1);
  EXPECT_EQ(snbf_get_file_dentry("", 0, &path), -EINVAL);
}

SIM_TEST(FileDevice, IsThatOfTheNearestAncestor) {
  LoggedParts parts;
  Device* disk = sim.add_device({.name = "sda1"});
  sim.make_dir("/mnt");
  ASSERT_EQ(sim.mount(sim.add_fs("data", disk->number()), "/mnt"), 0);
  ASSERT_EQ(sim.make_dir("/mnt/a"), 0);
  EXPECT_EQ(snbf_get_file_devt("/mnt/a/b/new"), disk->number());
  EXPECT_EQ(snbf_get_file_devt("/mnt/a"), disk->number());
  EXPECT_EQ(snbf_get_file_devt("/mnt/a/"), disk->number());
  // In memory, as a tmpfs is.
  sim.make_dir("/var");
  EXPECT_EQ(snbf_get_file_devt("/var/x"), 0u);
  // The root itself is never asked.
  EXPECT_EQ(snbf_get_file_devt("/none"), 0u);
  EXPECT_FALSE(sim.log().has_errors()) << sim.log().dump();
  EXPECT_EQ(snbf_get_file_devt("mnt/a"), 0u);
  EXPECT_EQ(sim.log().count("must be an absolute path.", 3), 2);
  ASSERT_EQ(sim.unmount(sim.fs("data")), 0);
}

SIM_TEST(FileDevice, IsNoneWithoutMemory) {
  LoggedParts parts;
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(snbf_get_file_devt("/a"), 0u);
  EXPECT_EQ(sim.log().count("snbf_get_file_devt(): Memory allocation failed.", 3), 1);
}

}  // namespace
}  // namespace snbf::sim
