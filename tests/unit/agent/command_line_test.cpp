// SPDX-License-Identifier: GPL-2.0-only
// Whole command lines, as the tool takes them: what is refused before anything is looked at.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "command.h"
#include "failure.h"
#include "files.h"
#include "manifest.h"
#include "misuse.h"
#include "version.h"

namespace snbf {
namespace {

using testing::HasSubstr;

// "status: what | fix" of the refusal; empty: there was none.
std::string said(const std::vector<std::string>& words) {
  Chosen chosen;
  const auto app = new_parser(chosen);
  auto reversed = words;
  std::reverse(reversed.begin(), reversed.end());
  const auto text = [](const Failure& failure) {
    return std::to_string(failure.status()) + ": " + failure.what() + " | " + failure.remedy();
  };
  try {
    app->parse(reversed);
    chosen();
  } catch (const CLI::ParseError& error) {
    return text(misuse_of(*app, words, error));
  } catch (const Failure& failure) {
    return text(failure);
  }
  return "";
}

using Line = std::vector<std::string>;

TEST(CommandLines, ADestinationThatIsEmptyIsMisuse) {
  for (const Line& line : {Line{"backup", "data", "--list"}, Line{"backup", "data", "", "--list"},
                           Line{"backup", "data", "--list", "--pipe", "cat"}, Line{"verify", ""},
                           Line{"restore", "", "x"}, Line{"restore", "@2", "x"},
                           Line{"prune", "", "--keep-last", "1"}}) {
    EXPECT_THAT(said(line), testing::StartsWith("2: ")) << testing::PrintToString(line);
    EXPECT_THAT(said(line), HasSubstr("give the destination")) << testing::PrintToString(line);
  }
}

class ChainLines : public testing::Test {
 protected:
  ChainLines() {
    EXPECT_NE(::mkdtemp(dir_.data()), nullptr);
    manifest_.chain = "0f";
    manifest_.node = "data";
    manifest_.size = 1 << 20;
    manifest_.extent_size = 65536;
  }
  ~ChainLines() override { std::filesystem::remove_all(dir_); }

  void save() const { replace_file(manifest_path(dir_), to_json_text(manifest_)); }
  void add_points(uint64_t count) {
    for (uint64_t id = 1; id <= count; ++id) {
      Point point;
      point.id = id;
      point.level = id == 1 ? Level::Full : Level::Incremental;
      if (id > 1) point.parent = id - 1;
      point.file = std::to_string(id) + ".qcow2";
      point.file_bytes = 10;
      manifest_.points.push_back(point);
    }
  }
  // What a rehearsal of a prune that keeps one point prints.
  nlohmann::json rehearsed() const {
    save();
    testing::internal::CaptureStdout();
    EXPECT_EQ(said({"prune", dir_, "--keep-last", "1", "--dry-run", "--json"}), "");
    return nlohmann::json::parse(testing::internal::GetCapturedStdout());
  }

  std::string dir_ = testing::TempDir() + "chain-XXXXXX";
  Manifest manifest_;
};

TEST_F(ChainLines, OneWithoutAPointIsBackedUpAgain) {
  save();
  EXPECT_THAT(said({"verify", dir_}),
              testing::AllOf(testing::StartsWith("1: "), HasSubstr("has no point"),
                             HasSubstr("| back up again")));
  EXPECT_THAT(said({"verify", dir_ + "@3"}), HasSubstr("| back up again"));
}

TEST_F(ChainLines, ARehearsedPruneHasThePointsThatWouldStay) {
  add_points(3);
  const auto json = rehearsed();
  EXPECT_EQ(json.at("points"), nlohmann::json({3}));
  EXPECT_EQ(json.at("dry_run"), true);
  EXPECT_EQ(json.at("steps").size(), 2u);
  EXPECT_EQ(json.at("bytes_before"), 30);
  EXPECT_TRUE(json.at("bytes_after").is_null());
}

TEST_F(ChainLines, ARehearsedPruneBehindOneThatWasCutOffHasThemToo) {
  add_points(3);
  manifest_.merge = Merge{1, 2, "", 0};
  const auto json = rehearsed();
  EXPECT_EQ(json.at("points"), nlohmann::json({2, 3})) << "what is being merged is no point";
  EXPECT_EQ(json.at("dry_run"), true);
}

TEST(CommandLines, ANumberBelowZeroIsMisuse) {
  for (const Line& line :
       {Line{"prune", "/nowhere", "--keep-last", "-1"},
        Line{"prune", "/nowhere", "--keep-daily", "-1"},
        Line{"prune", "/nowhere", "--keep-weekly", "-7"},
        Line{"prune", "/nowhere", "--keep-monthly", "-1"}, Line{"watch", "--count", "-1"},
        Line{"attach", "/dev/null", "--name", "n", "--minor", "-2"}}) {
    EXPECT_THAT(said(line), testing::StartsWith("2: ")) << testing::PrintToString(line);
    EXPECT_THAT(said(line), HasSubstr(line[line.size() - 2] + ": "))
        << testing::PrintToString(line);
  }
  EXPECT_THAT(said({"prune", "/nowhere", "--keep-last", "3"}), HasSubstr("holds no backup"));
}

TEST(CommandLines, EveryTimeIsWrittenAlike) {
  const std::vector<Line> taken = {{"backup", "--list", "data", "/nowhere", "--freeze-limit"},
                                   {"backup", "--list", "data", "/nowhere", "--hook-limit"},
                                   {"stop", "--timeout"},
                                   {"detach", "--timeout"}};
  for (const Line& line : taken) {
    for (const char* time : {"2", "2.5", "500ms", "30s", "1m", "1h"}) {
      Line whole = line;
      whole.push_back(time);
      EXPECT_THAT(said(whole), testing::AnyOf(HasSubstr("/nowhere holds no backup"),
                                              HasSubstr("needs a node, or --all")))
          << testing::PrintToString(whole);
    }
    for (const char* time : {"soon", "-1", "30x", "", "nan", "1000000h"}) {
      Line whole = line;
      whole.push_back(time);
      EXPECT_THAT(said(whole), testing::StartsWith("2: ")) << testing::PrintToString(whole);
      EXPECT_THAT(said(whole), HasSubstr("such as 500ms, 30s or 2m"))
          << testing::PrintToString(whole);
    }
  }
  for (const Line& line : {Line{"watch", "--interval", "soon"}, Line{"down", "--timeout", "soon"},
                           Line{"watch", "--interval", "10ms"}}) {
    EXPECT_THAT(said(line), HasSubstr("such as 500ms, 30s or 2m"));
  }
}

TEST(CommandLines, AnInstantRestoreIsNotComparedAndAPlainOneHasNoScratch) {
  EXPECT_THAT(said({"restore", "/nowhere", "x", "--scratch", "/tmp"}),
              testing::AllOf(testing::StartsWith("2: "), HasSubstr("--instant")));
  EXPECT_THAT(said({"restore", "/nowhere", "x", "--instant", "d", "--compare"}),
              testing::AllOf(testing::StartsWith("2: "), HasSubstr("--compare")));
  for (const Line& line :
       {Line{"restore", "/nowhere", "x", "--instant", "d", "--no-compare"},
        Line{"restore", "/nowhere", "x", "--compare"},
        Line{"restore", "/nowhere", "x", "--no-verify"},
        Line{"restore", "/nowhere", "x", "--instant", "d", "--scratch", "/tmp"}}) {
    EXPECT_THAT(said(line), HasSubstr("/nowhere holds no backup")) << testing::PrintToString(line);
  }
}

TEST(CommandLines, TheVersionIsAnOptionToo) {
  Chosen chosen;
  const auto app = new_parser(chosen);
  try {
    app->parse(Line{"--version"});
    FAIL() << "it goes on";
  } catch (const CLI::Success& success) {
    EXPECT_EQ(success.what(), version_text());
    EXPECT_THAT(version_text(), testing::StartsWith("snbf " + tool_version() + "\ndriver "));
    testing::internal::CaptureStdout();
    EXPECT_EQ(app->exit(success), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), version_text() + "\n");
  }
}

}  // namespace
}  // namespace snbf
