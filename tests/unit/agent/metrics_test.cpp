// SPDX-License-Identifier: GPL-2.0-only
// Metrics are in the format, complete, and the ones that the manual and the alerts name.
#include "metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "files.h"
#include "played_facts.h"

namespace snbf {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string text_with(const std::vector<NodeFacts>& nodes) {
  return metrics_text("1.2", {true, "3.4"}, nodes);
}

std::string sample(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + " ", 0) == 0) return line.substr(name.size() + 1);
  }
  return "none";
}

// All that `pattern` finds.
std::set<std::string> found_in(const std::string& text, const char* pattern) {
  const std::regex expression(pattern);
  std::set<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    found.insert((*at)[1]);
  }
  return found;
}

// Every one that there can be.
std::string all_metrics() {
  NodeFacts doubtful = played_facts();
  doubtful.next_full = "bitmap-dirty";
  return text_with({doubtful});
}

TEST(Metrics, SayWhatANodeIsAndHolds) {
  const std::string text = text_with({played_facts()});
  EXPECT_EQ(sample(text, "snbf_up"), "1");
  EXPECT_EQ(sample(text, "snbf_build_info{version=\"1.2\",driver=\"3.4\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_node_changed_bytes{node=\"data\",bitmap=\"incr\"}"), "819200");
  EXPECT_EQ(sample(text, "snbf_node_changed_bytes{node=\"data\",bitmap=\"diff\"}"), "4096000");
  EXPECT_EQ(sample(text, "snbf_node_bitmap_unsaved{node=\"data\",bitmap=\"incr\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_node_bitmap_unsaved{node=\"data\",bitmap=\"diff\"}"), "0");
  EXPECT_EQ(sample(text, "snbf_node_tracking{node=\"data\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_node_opens{node=\"data\"}"), "2");
  EXPECT_EQ(sample(text, "snbf_node_last_backup_timestamp_seconds{node=\"data\"}"), "1000000");
  EXPECT_EQ(sample(text, "snbf_node_last_full_backup_timestamp_seconds{node=\"data\"}"), "900000");
  EXPECT_EQ(sample(text, "snbf_node_next_backup_full{node=\"data\"}"), "0");
  EXPECT_THAT(text, Not(HasSubstr("snbf_node_next_backup_full_info")));
}

TEST(Metrics, SayWhyTheNextBackupIsFull) {
  const std::string text = all_metrics();
  EXPECT_EQ(sample(text, "snbf_node_next_backup_full{node=\"data\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_node_next_backup_full_info{node=\"data\",reason=\"bitmap-dirty\"}"),
            "1");
}

TEST(Metrics, SayWhatASnapHoldsAndWhenItsStoreIsFull) {
  const std::string text = text_with({played_facts()});
  const std::string monday = "node=\"data\",snap=\"monday\"";
  const std::string tuesday = "node=\"data\",snap=\"tuesday\"";
  EXPECT_EQ(sample(text, "snbf_snap_state{" + monday + ",state=\"lost\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_snap_state{" + monday + ",state=\"started\"}"), "0");
  EXPECT_EQ(sample(text, "snbf_snap_state{" + tuesday + ",state=\"started\"}"), "1");
  EXPECT_EQ(sample(text, "snbf_snap_cow_bytes{" + tuesday + "}"), "3145728");
  EXPECT_EQ(sample(text, "snbf_snap_cow_free_bytes{" + tuesday + "}"), "9437184");
  EXPECT_EQ(sample(text, "snbf_snap_cow_full_seconds{" + tuesday + "}"), "7800");
  EXPECT_EQ(sample(text, "snbf_snap_cow_full_seconds{" + monday + "}"), "none");
}

TEST(Metrics, AMissingDriverIsAnAnswer) {
  EXPECT_EQ(metrics_text("1.2", {false, ""}, {}),
            "# HELP snbf_up 1 while the driver is loaded.\n# TYPE snbf_up gauge\nsnbf_up 0\n"
            "# HELP snbf_build_info Versions of the tool and of the driver; the value is always "
            "1.\n# TYPE snbf_build_info gauge\nsnbf_build_info{version=\"1.2\",driver=\"\"} 1\n");
}

TEST(Metrics, AreSilentAboutABackupThatNobodyKnows) {
  NodeFacts node = played_facts();
  node.last_backup = node.last_full_backup = 0;
  EXPECT_THAT(text_with({node}), Not(HasSubstr("last_backup")));
  EXPECT_THAT(text_with({node}), Not(HasSubstr("last_full_backup")));
}

TEST(Metrics, EscapeLabels) {
  NodeFacts node = played_facts();
  node.partition = "/dev/a\"b\\c\nd";
  EXPECT_THAT(text_with({node}), HasSubstr("partition=\"/dev/a\\\"b\\\\c\\nd\""));
}

// Each name once with HELP and TYPE, all its samples behind them, and nothing twice.
TEST(Metrics, AreInTheFormat) {
  NodeFacts other = played_facts();
  other.name = "other";
  std::istringstream lines(text_with({played_facts(), other}));
  const std::regex legal(R"re(([a-z_]+)(\{[a-z]+="[^"]*"(,[a-z]+="[^"]*")*\})? [0-9.e+]+)re");
  std::set<std::string> names;
  std::set<std::string> series;
  std::string name;
  for (std::string line; std::getline(lines, line);) {
    std::smatch parts;
    if (line.rfind("# HELP ", 0) == 0) {
      name = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(names.insert(name).second) << name << " twice";
      ASSERT_TRUE(std::getline(lines, line));
      EXPECT_EQ(line, "# TYPE " + name + " gauge");
    } else {
      ASSERT_TRUE(std::regex_match(line, parts, legal)) << line;
      EXPECT_EQ(parts[1], name);
      EXPECT_TRUE(series.insert(line.substr(0, line.find_last_of(' '))).second) << line;
    }
  }
  EXPECT_GE(names.size(), 18u);
}

TEST(Metrics, TheManualNamesEachOfThem) {
  std::string page;
  ASSERT_TRUE(read_file(SNBF_SOURCES "/docs/man/snbf-metrics.1.scd", &page));
  EXPECT_EQ(found_in(page, R"(\*(snbf_\w+)\*)"), found_in(all_metrics(), R"(# TYPE (\w+))"));
}

TEST(Metrics, TheAlertsAreAboutWhatThereIs) {
  std::string rules;
  ASSERT_TRUE(read_file(SNBF_SOURCES "/packaging/examples/snbf-alerts.yml", &rules));
  const auto there = found_in(all_metrics(), R"(# TYPE (\w+))");
  const auto named = found_in(rules, R"(\b(snbf_\w+))");
  EXPECT_GE(named.size(), 8u);
  for (const std::string& name : named) EXPECT_THAT(there, testing::Contains(name));
}

TEST(Statistics, TheSeventhWordIsWhatWasWritten) {
  EXPECT_EQ(written_bytes_of("  1 2 3 4 5 6 700 8 9 10 11\n"), 700u * 512);
  EXPECT_FALSE(written_bytes_of("1 2 3"));
  EXPECT_FALSE(written_bytes_of(""));
}

}  // namespace
}  // namespace snbf
