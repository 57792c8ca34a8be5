// SPDX-License-Identifier: GPL-2.0-only
// Command lines that nobody meant, and what is said of them.
#include "misuse.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace snbf {
namespace {

using testing::HasSubstr;

class CommandLine : public testing::Test {
 protected:
  CommandLine() {
    app_.require_subcommand(1);
    CLI::App* backup = app_.add_subcommand("backup");
    backup->add_option("node", node_)->required();
    backup->add_option("--level", level_)->check(CLI::IsMember({"auto", "full"}));
    backup->add_option("--timeout", timeout_);
    backup->add_flag("--json", json_);
    CLI::App* snap = app_.add_subcommand("snap");
    snap->require_subcommand(1);
    snap->add_subcommand("create");
    snap->add_subcommand("delete");
  }
  // "what | fix" of the refusal; it is always a misuse.
  std::string said(std::vector<std::string> words) {
    auto reversed = words;
    std::reverse(reversed.begin(), reversed.end());
    try {
      app_.parse(reversed);
    } catch (const CLI::ParseError& error) {
      const Failure failure = misuse_of(app_, words, error);
      EXPECT_EQ(failure.status(), kMisused);
      EXPECT_NE(failure.remedy(), "");
      return std::string(failure.what()) + " | " + failure.remedy();
    }
    return "";
  }
  CLI::App app_{"", "snbf"};
  std::string node_;
  std::string level_;
  int timeout_ = 0;
  bool json_ = false;
};

TEST_F(CommandLine, WithoutAVerbIsToldWhereTheyStand) {
  EXPECT_EQ(said({}), "snbf needs a verb | `snbf --help` lists the verbs");
  EXPECT_EQ(said({"snap"}), "snbf snap needs a verb | `snbf snap --help` lists the verbs");
}

TEST_F(CommandLine, WithAnUnknownVerbIsAskedWhetherAnotherWasMeant) {
  EXPECT_THAT(said({"bakcup", "data"}), HasSubstr("no verb \"bakcup\" | did you mean \"backup\"?"));
  EXPECT_THAT(said({"back"}), HasSubstr("did you mean \"backup\"?"));
  EXPECT_THAT(said({"snap", "dlete", "x"}),
              HasSubstr("snbf snap has no verb \"dlete\" | did you mean \"delete\"?"));
  EXPECT_THAT(said({"frobnicate"}), HasSubstr("no verb \"frobnicate\" | `snbf --help`"));
}

TEST_F(CommandLine, WithAnUnknownOptionIsAskedWhetherAnotherWasMeant) {
  EXPECT_THAT(said({"backup", "data", "--jsn"}),
              HasSubstr("no option \"--jsn\" | did you mean \"--json\"?"));
  EXPECT_THAT(said({"backup", "data", "--frobnicate=7"}),
              HasSubstr("no option \"--frobnicate\" | `snbf backup"));
}

TEST_F(CommandLine, WithTooManyOrTooFewArgumentsNamesThem) {
  EXPECT_THAT(said({"backup"}), HasSubstr("snbf backup: node is required"));
  EXPECT_THAT(said({"backup", "data", "more"}), HasSubstr("more"));
  EXPECT_THAT(said({"backup", "data", "--level"}), HasSubstr("--level"));
}

TEST_F(CommandLine, WithAValueThatIsNoneNamesIt) {
  EXPECT_THAT(said({"backup", "data", "--level", "half"}), HasSubstr("half"));
  EXPECT_THAT(said({"backup", "data", "--timeout", "soon"}), HasSubstr("soon"));
}

TEST(Printable, KeepsWhatATerminalMayBeGiven) {
  EXPECT_EQ(printable("größe\n"), "größe\n");
  EXPECT_EQ(printable("a\033[2Jb\r\177"), "a\\x1b[2Jb\\x0d\\x7f");
}

TEST(Tell, SaysTheSameInJson) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  tell({kBusy, "it is \"in use\"\n", "wait"}, true);
  const auto json = nlohmann::json::parse(testing::internal::GetCapturedStdout());
  EXPECT_EQ(json.at("error"), "it is \"in use\"");
  EXPECT_EQ(json.at("fix"), "wait");
  EXPECT_EQ(json.at("status"), 8);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "snbf: it is \"in use\"\n      wait\n");
}

TEST(Tell, IsNotUndoneByANameThatIsNoText) {
  testing::internal::CaptureStdout();
  tell({kFailed, "no node is called \xff\xfe", ""}, true);
  EXPECT_TRUE(nlohmann::json::accept(testing::internal::GetCapturedStdout()));
}

TEST(Nearest, IsNobodyWhenNothingIsNear) {
  EXPECT_EQ(nearest("x", {"mount", "list"}), "");
  EXPECT_EQ(nearest("lsit", {"mount", "list"}), "list");
  EXPECT_EQ(nearest("unmount", {"mount", "umount"}), "umount");
}

}  // namespace
}  // namespace snbf
