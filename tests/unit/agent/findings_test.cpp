// SPDX-License-Identifier: GPL-2.0-only
// What doctor makes of what it sees.
#include "findings.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "files.h"
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
  facts.secure_boot = SecureBoot::On;
  EXPECT_THAT(judge_module(facts).text, HasSubstr("is not signed"));
  facts.signer = "me";
  EXPECT_EQ(judge_module(facts).fix, "modprobe snbf");
  EXPECT_THAT(judge_module(facts).text, HasSubstr("signed by me"));
  EXPECT_EQ(judge_module(facts).grade, Grade::Bad);
  facts.loaded = true;
  EXPECT_THAT(judge_module(facts).fix, HasSubstr("devtmpfs"));
  facts.control = true;
  EXPECT_EQ(judge_module(facts).grade, Grade::Good);
  EXPECT_EQ(judge_module(facts).text, "loaded; Secure Boot is on");
}

TEST(JudgeModule, TellsAnUnknownKeyFromNoSignature) {
  ModuleFacts facts;
  facts.loaded = true;
  facts.control = true;
  facts.file = "/lib/modules/x/snbf.ko";
  facts.taints = "OE";
  EXPECT_EQ(judge_module(facts).text, "loaded, not signed; Secure Boot is off");
  facts.signer = "me";
  EXPECT_EQ(judge_module(facts).text,
            "loaded, not signed with a key that the kernel knows (its file is signed by me); "
            "Secure Boot is off");
  facts.taints = "O";
  facts.secure_boot = SecureBoot::Unknown;
  EXPECT_EQ(judge_module(facts).text, "loaded; Secure Boot is unknown");
}

TEST(JudgeModule, TheCureForAMissingOneIsForThoseWhoCanTakeIt) {
  ModuleFacts facts;
  facts.release = "6.1.0-28-amd64";
  EXPECT_EQ(judge_module(facts).fix,
            "install linux-headers-6.1.0-28-amd64, then `make module install`");
  facts.packaged = true;
  EXPECT_EQ(judge_module(facts).fix,
            "`apt-get install linux-headers-6.1.0-28-amd64`, then `dkms autoinstall`");
  facts.release = "6.13.1";
  EXPECT_EQ(judge_module(facts).fix, "boot a supported kernel (Linux 6.1 to 6.12)");
}

TEST(SupportedKernel, IsWhatDkmsBuildsFor) {
  std::string text;
  ASSERT_TRUE(read_file(std::string(SNBF_SOURCES) + "/packaging/dkms/dkms.conf.in", &text));
  std::smatch found;
  ASSERT_TRUE(std::regex_search(text, found, std::regex("BUILD_EXCLUSIVE_KERNEL=\"(.*)\"")));
  const std::regex range(found[1].str());
  size_t supported = 0;
  for (int major : {5, 6, 7}) {
    for (int minor = 0; minor < 20; ++minor) {
      const std::string release = fmt::format("{}.{}.0-28-amd64", major, minor);
      EXPECT_EQ(is_supported_kernel(release), std::regex_search(release, range)) << release;
      supported += is_supported_kernel(release);
    }
  }
  EXPECT_EQ(supported, 12u);
}

TEST(SecureBootOf, IsWhatTheFirmwareSaysOrUnknown) {
  namespace fs = std::filesystem;
  const fs::path firmware = fs::path(testing::TempDir()) / "firmware";
  const fs::path variables = firmware / "efi/efivars";
  fs::remove_all(firmware);
  EXPECT_EQ(secure_boot_of(firmware), SecureBoot::Off) << "no EFI";
  fs::create_directories(firmware / "efi");
  EXPECT_EQ(secure_boot_of(firmware), SecureBoot::Unknown);
  fs::create_directories(variables);
  EXPECT_EQ(secure_boot_of(firmware), SecureBoot::Unknown) << "its variables are not mounted";
  std::ofstream(variables / "Boot0000-x") << "x";
  EXPECT_EQ(secure_boot_of(firmware), SecureBoot::Off) << "a firmware without it";
  const fs::path variable = variables / "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
  for (const char value : {0, 1}) {
    std::ofstream(variable) << std::string({6, 0, 0, 0, value});
    EXPECT_EQ(secure_boot_of(firmware), value ? SecureBoot::On : SecureBoot::Off);
  }
  std::ofstream(variable) << "cut";
  EXPECT_EQ(secure_boot_of(firmware), SecureBoot::Unknown);
  fs::remove_all(firmware);
}

TEST(JudgeMajors, LooksInTheRightSection) {
  const std::string free_ones =
      "Character devices:\n  1 mem\n 10 misc\n\nBlock devices:\n  8 sd\n259 blkext\n";
  EXPECT_EQ(judge_majors(false, free_ones, false).grade, Grade::Good);
  const Finding chr =
      judge_majors(false, "Character devices:\n100 other\n240 x\n\nBlock devices:\n241 y\n", false);
  EXPECT_EQ(chr.text, "100 is taken by other");
  EXPECT_EQ(
      chr.fix,
      "write `options snbf snbf_chr_major=241` into /etc/modprobe.d/snbf.conf, then `modprobe "
      "snbf`")
      << "it must outlive the next boot";
  const Finding blk =
      judge_majors(false, "Character devices:\n\nBlock devices:\n100 other\n", true);
  EXPECT_EQ(blk.grade, Grade::Bad);
  EXPECT_THAT(blk.fix, HasSubstr("snbf_blk_major=240` into /etc/modprobe.d/snbf.conf, then "
                                 "`update-initramfs -u` and"));
  EXPECT_EQ(judge_majors(true, "Block devices:\n100 snbf\n", false).grade, Grade::Good);
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
