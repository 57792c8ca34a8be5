// SPDX-License-Identifier: GPL-2.0-only
// The live view: what it says, that it fits, and how it is drawn over itself.
#include "watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "layout.h"
#include "played_facts.h"
#include "screen.h"

namespace snbf {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(Rates, AreWhatCameBetweenTwoLooks) {
  const NodeFacts before = played_facts();
  NodeFacts now = before;
  now.written_bytes = *before.written_bytes + 8192;
  now.incr.extents.set(0);
  const Rates rates = rates_between(before, now, 2);
  EXPECT_EQ(rates.written, 4096.0);
  EXPECT_EQ(rates.marked, 2048.0);
}

TEST(Rates, AreNotKnownWhenTheCountBeganAnew) {
  const NodeFacts before = played_facts();
  NodeFacts now = before;
  now.written_bytes = 0;
  now.incr.extents = Extents(1000, 4096, now.size);  // a backup took them
  EXPECT_FALSE(rates_between(before, now, 1).written);
  EXPECT_FALSE(rates_between(before, now, 1).marked);
  now = before;
  now.uuid = "another node of that name";
  EXPECT_FALSE(rates_between(before, now, 1).written);
  EXPECT_FALSE(rates_between(before, before, 0).written);
}

TEST(WatchPanel, SaysWhatAnAdministratorLooksFor) {
  const std::string panel = watch_panel(played_facts(), {4096.0, 1024.0}, 80, true);
  for (const char* part :
       {"data  started, open 2 times", "/dev/sdb1, 3.9M", "800K (20.0 %) since the backup of",
        "4K/s, new in the bitmap 1K/s", "2 hold 3M, 9M free, full in 2 h 10 min, 1 lost",
        "the next is incremental"}) {
    EXPECT_THAT(panel, HasSubstr(part));
  }
}

TEST(WatchPanel, SaysWhyTheNextBackupIsFullAndWhatIsNotKnown) {
  NodeFacts node = played_facts();
  node.started = false;
  node.next_full = "bitmap-dirty";
  node.snaps.clear();
  const std::string panel = watch_panel(node, {}, 120, true);
  EXPECT_THAT(panel, HasSubstr("stopped, and tracks nothing"));
  EXPECT_THAT(panel, HasSubstr("the next is full: a bitmap file was dirty"));
  EXPECT_THAT(panel, HasSubstr("writes     -, new in the bitmap -\n"));
  EXPECT_THAT(panel, Not(HasSubstr("snaps")));
}

TEST(WatchPanel, NoLineIsWiderThanTheTerminal) {
  NodeFacts node = played_facts();
  node.name = std::string(100, 'n');
  node.partition = "/dev/disk/by-id/" + std::string(100, 'p');
  node.next_full = "bitmap-dirty";
  for (size_t width : {40, 80, 132}) {
    for (const bool unicode : {false, true}) {
      std::istringstream lines(watch_panel(node, {}, width, unicode));
      for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(shown_width(line), width) << line;
      }
    }
  }
}

TEST(WatchLine, IsOneLineWithItsTime) {
  const std::string line = watch_line(played_facts(), {4096.0, {}}, 0);
  EXPECT_EQ(line,
            "1970-01-01T00:00:00Z data started changed 800K written 4K/s marked - "
            "snaps 2 hold 3M, 9M free, full in 2 h 10 min, 1 lost\n");
}

TEST(WatchJson, HasNullForWhatIsNotKnown) {
  const Json json = watch_json(played_facts(), {4096.0, {}}, 0);
  EXPECT_EQ(json["written_bytes_per_second"], 4096.0);
  EXPECT_TRUE(json["marked_bytes_per_second"].is_null());
  EXPECT_TRUE(json["snap_list"][0]["cow_full_in_seconds"].is_null());
  EXPECT_EQ(json["snap_list"][1]["cow_full_in_seconds"], 7800);
}

TEST(Screen, ADrawingClearsEachLineAndWhatIsBelow) {
  EXPECT_EQ(drawn_over("a\nb\n", 24), "\033[Ha\033[K\nb\033[K\033[J");
}

TEST(Screen, ADrawingNeverScrolls) {
  EXPECT_EQ(drawn_over("a\nb\nc\n", 2), "\033[Ha\033[K\nb\033[K\033[J");
}

}  // namespace
}  // namespace snbf
