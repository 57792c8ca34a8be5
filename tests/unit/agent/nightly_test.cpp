// SPDX-License-Identifier: GPL-2.0-only
// What the unit of the nightly backup runs around it, by a shell and a tool that only answers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "files.h"

namespace snbf {
namespace {

class Nightly : public testing::Test {
 protected:
  Nightly() {
    char name[] = "/tmp/snbf-nightly-XXXXXX";
    folder_ = ::mkdtemp(name);
    std::stringstream text;
    text << std::ifstream(SNBF_SOURCES "/packaging/systemd/snbf-backup@.service").rdbuf();
    unit_ = text.str();
  }
  ~Nightly() override { std::filesystem::remove_all(folder_); }

  static void replace_all(std::string* text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size()) {
      text->replace(at, from.size(), to);
    }
  }
  std::string tool() const { return folder_ + "/snbf"; }
  void tool_answers(int status) const {
    std::ofstream(tool()) << "#!/bin/sh\necho \"$#: $*\"\nexit " << status << "\n";
    std::filesystem::permissions(tool(), std::filesystem::perms::owner_all);
  }
  // The line of that name, run as the service manager would.
  Ran run_line(const std::string& key, const std::string& keep, const std::string& mount) const {
    const std::string begin = "\n" + key + "=/bin/sh -c '";
    const size_t from = unit_.find(begin) + begin.size();
    std::string script = unit_.substr(from, unit_.find("'\n", from) - from);
    replace_all(&script, "$$", "$");
    replace_all(&script, "/usr/bin/snbf", tool());
    return run({"env", "DEST=/a b", "KEEP=" + keep, "MOUNT=" + mount, "/bin/sh", "-c", script});
  }

  std::string folder_;
  std::string unit_;
};

TEST_F(Nightly, APruneThatIsBusyIsLeftToTheNextNight) {
  tool_answers(8);
  const Ran ran = run_line("ExecStartPost", "--keep-last 3", "");
  EXPECT_EQ(ran.status, 0) << ran.errors;
  EXPECT_EQ(ran.output, "4: prune /a b --keep-last 3\nthe next backup prunes\n");
}

TEST_F(Nightly, APruneThatFailsIsToldByItsStatus) {
  for (const int status : {0, 1, 7}) {
    tool_answers(status);
    EXPECT_EQ(run_line("ExecStartPost", "--keep-last 3", "").status, status);
  }
  EXPECT_EQ(run_line("ExecStartPost", "", "").output, "") << "nothing is to go";
}

TEST_F(Nightly, WithoutTheDestinationsDiskThereIsNoBackup) {
  EXPECT_EQ(run_line("ExecStartPre", "", "").status, 0) << "none is named";
  EXPECT_EQ(run_line("ExecStartPre", "", "/").status, 0);
  const Ran ran = run_line("ExecStartPre", "", folder_);
  EXPECT_EQ(ran.status, 6);
  EXPECT_NE(ran.errors.find(folder_ + " is not mounted"), std::string::npos) << ran.errors;
}

}  // namespace
}  // namespace snbf
