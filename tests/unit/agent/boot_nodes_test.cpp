// SPDX-License-Identifier: GPL-2.0-only
// The file of the nodes that come up at boot, their order, and the units made of them.
#include "boot_nodes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "boot_units.h"
#include "failure.h"

namespace snbf {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

BootNode node(const std::string& name, const std::string& bitmaps = "/var/lib/snbf") {
  BootNode made;
  made.name = name;
  made.partition = "PARTUUID=" + name;
  made.bitmaps = bitmaps;
  return made;
}

std::string problem_of(const std::string& line) {
  const BootNodes found = parse_boot_nodes(line);
  EXPECT_TRUE(found.nodes.empty()) << line;
  return found.problems.size() == 1 ? found.problems[0] : "";
}

std::vector<std::string> names(const std::vector<BootNode>& nodes) {
  std::vector<std::string> found;
  for (const BootNode& one : nodes) found.push_back(one.name);
  return found;
}

TEST(ParseBootNodes, TakesBlankLinesCommentsAndOptions) {
  const BootNodes found = parse_boot_nodes(
      "# nodes\n\n  data PARTUUID=0a-01  /var/lib/snbf\n"
      "mail\t/dev/disk/by-id/x-part1 /srv/my\\040maps extent=1M,minor=7 # the post\n");
  EXPECT_TRUE(found.problems.empty());
  ASSERT_EQ(found.nodes.size(), 2u);
  EXPECT_EQ(found.nodes[0].extent_size, 65536u);
  EXPECT_EQ(found.nodes[0].minor, -1);
  EXPECT_EQ(found.nodes[0].line, 3u);
  EXPECT_EQ(found.nodes[1].bitmaps, "/srv/my maps");
  EXPECT_EQ(found.nodes[1].extent_size, 1u << 20);
  EXPECT_EQ(found.nodes[1].minor, 7);
}

TEST(ParseBootNodes, NamesTheLineAndTheCure) {
  EXPECT_THAT(problem_of("\n\ndata PARTUUID=1"), HasSubstr("line 3: three or four words"));
  EXPECT_THAT(problem_of("a/b PARTUUID=1 /x"), HasSubstr("a/b is no name"));
  EXPECT_THAT(problem_of("data sdb1 /x"), HasSubstr("sdb1 is no partition"));
  EXPECT_THAT(problem_of("data UUID=1 /x"), HasSubstr("names the file system"));
  EXPECT_THAT(problem_of("data PARTUUID=1 x"), HasSubstr("x is no absolute path"));
  EXPECT_THAT(problem_of("data PARTUUID=1 /x extent=96K"), HasSubstr("extent=96K"));
  EXPECT_THAT(problem_of("data PARTUUID=1 /x minor=-1"), HasSubstr("minor=-1"));
  EXPECT_THAT(problem_of("data PARTUUID=1 /x colour=red"), HasSubstr("colour=red is no option"));
  EXPECT_THAT(problem_of("root PARTUUID=1 /x store=UUID=2"), HasSubstr("/run/initramfs/snbf"));
}

TEST(ParseBootNodes, LeavesOutTheWrongLineAlone) {
  const BootNodes found = parse_boot_nodes("a PARTUUID=1 /x\nb\nc PARTUUID=2 /x\n");
  EXPECT_THAT(names(found.nodes), ElementsAre("a", "c"));
  EXPECT_EQ(found.problems.size(), 1u);
}

TEST(ParseBootNodes, TwoLinesShareNothing) {
  const std::string first = "a PARTUUID=1 /x minor=1\n";
  for (const char* other : {"a PARTUUID=2 /x", "b PARTUUID=1 /x", "b PARTUUID=2 /x minor=1"}) {
    const BootNodes found = parse_boot_nodes(first + other);
    EXPECT_THAT(names(found.nodes), ElementsAre("a"));
    ASSERT_EQ(found.problems.size(), 1u);
    EXPECT_THAT(found.problems[0], HasSubstr("line 2: line 1 has the same"));
  }
}

TEST(PrintBootNode, IsReadAsItWas) {
  BootNode made = node("root", "/run/initramfs/snbf/my #maps, and");
  made.extent_size = 4 << 20;
  made.minor = 3;
  made.store = "PARTUUID=9";
  BootNodes found = parse_boot_nodes(print_boot_node(made));
  ASSERT_EQ(found.nodes.size(), 1u);
  found.nodes[0].line = 0;
  EXPECT_EQ(found.nodes[0], made);
}

TEST(WithBootNode, KeepsWhatOthersWrote) {
  const std::string text = "# mine\na PARTUUID=a /x\n\nb PARTUUID=b /x # b\n";
  EXPECT_EQ(with_boot_node(text, node("b", "/y")),
            "# mine\na PARTUUID=a /x\n\nb  PARTUUID=b  /y  extent=64K\n");
  EXPECT_EQ(with_boot_node(text, node("c")), text + "c  PARTUUID=c  /var/lib/snbf  extent=64K\n");
  EXPECT_EQ(without_boot_node(text, "a"), "# mine\n\nb PARTUUID=b /x # b\n");
  EXPECT_EQ(without_boot_node(text, "mine"), text);
}

TEST(InBootOrder, BitmapsOnAnotherNodeComeBehindIt) {
  const std::vector<MountLine> mounts = {
      {"/dev/sda1", "/"}, {"/dev/snbf/store", "/srv"}, {"/dev/snbf/data", "/srv/data"}};
  const auto order = in_boot_order(
      {node("mail", "/srv/data/maps"), node("data", "/srv/maps"), node("store")}, mounts);
  EXPECT_THAT(names(order), ElementsAre("store", "data", "mail"));
}

TEST(InBootOrder, ARingIsRefused) {
  const std::vector<MountLine> mounts = {{"/dev/snbf/a", "/a"}, {"/dev/snbf/b", "/b"}};
  EXPECT_THROW(in_boot_order({node("a", "/b"), node("b", "/a/maps")}, mounts), Failure);
  EXPECT_THROW(in_boot_order({node("a", "/a/maps")}, mounts), Failure);
}

TEST(MountOf, IsTheDeepestAndEndsAtASlash) {
  const std::vector<MountLine> mounts = {{"1", "/"}, {"2", "/srv"}, {"3", "none"}};
  EXPECT_EQ(mount_of("/srv/x", mounts)->source, "2");
  EXPECT_EQ(mount_of("/srv", mounts)->source, "2");
  EXPECT_EQ(mount_of("/srvx", mounts)->source, "1");
  EXPECT_EQ(mount_of("/srv", {}), nullptr);
}

TEST(UnitNameOf, EscapesAsSystemdDoes) {
  EXPECT_EQ(unit_name_of("/dev/disk/by-partuuid/0a-01", ".device"),
            "dev-disk-by\\x2dpartuuid-0a\\x2d01.device");
  EXPECT_EQ(unit_name_of("/", ".mount"), "-.mount");
  EXPECT_EQ(unit_name_of("//srv//.x/", ".mount"), "srv-.x.mount");
  EXPECT_EQ(unit_name_of("/.x", ".mount"), "\\x2ex.mount");
}

TEST(UnitsFor, EachNodeWaitsForItsPartitionAndItsBitmaps) {
  BootNode early = node("root", "/run/initramfs/snbf/maps");
  early.store = "PARTUUID=9";
  const BootUnits units =
      units_for({node("data", "/srv/100%/maps"), early}, {{"/dev/snbf/data", "/srv/data"}});
  ASSERT_EQ(units.files.size(), 2u);
  EXPECT_EQ(units.files[0].first, "snbf-node@data.service.d/50-nodes.conf");
  EXPECT_THAT(units.files[0].second, HasSubstr("After=dev-disk-by\\x2dpartuuid-data.device\n"));
  EXPECT_THAT(units.files[0].second, HasSubstr("RequiresMountsFor=\"/srv/100%%/maps\"\n"));
  EXPECT_THAT(units.files[1],
              Pair("srv-data.mount.d/50-snbf.conf", HasSubstr("After=snbf-node@data.service")));
  EXPECT_THAT(units.links, ElementsAre(Pair("local-fs.target.wants/snbf-node@data.service",
                                            HasSubstr("snbf-node@.service"))));
}

}  // namespace
}  // namespace snbf
