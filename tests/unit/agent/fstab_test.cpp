// SPDX-License-Identifier: GPL-2.0-only
// Which mounts of fstab may get a partition in its node's place.
#include "fstab.h"

#include <gtest/gtest.h>

namespace snbf {
namespace {

TEST(MountByName, IsOfTheFileSystemWithThatUuidOrLabel) {
  const std::vector<MountLine> mounts = {{"/dev/snbf/data", "/srv/data"},
                                         {"LABEL=shop", "/srv/shop"},
                                         {"UUID=0f-1", "/srv/mail"},
                                         {"/dev/disk/by-uuid/0f-2", "/x"},
                                         {"UUID=", "/nothing"}};
  const auto target = [&](const char* uuid, const char* label) {
    const MountLine* found = mount_by_name(uuid, label, mounts);
    return found ? found->target : "";
  };
  EXPECT_EQ(target("0f-1", ""), "/srv/mail");
  EXPECT_EQ(target("0f-2", ""), "/x");
  EXPECT_EQ(target("0f-3", "shop"), "/srv/shop");
  EXPECT_EQ(target("0f-3", ""), "");
  EXPECT_EQ(target("", ""), "");
}

TEST(KeepsItsNames, IsTrueWhereUdevOrTheInitramfsSeesToIt) {
  BootNode data;
  data.name = "data";
  data.partition = "PARTUUID=0f-1";
  EXPECT_TRUE(keeps_its_names(data));
  data.partition = "PARTLABEL=data";
  EXPECT_FALSE(keeps_its_names(data));
  data.store = "PARTUUID=9";
  EXPECT_TRUE(keeps_its_names(data));
}

}  // namespace
}  // namespace snbf
