// SPDX-License-Identifier: GPL-2.0-only
// The drawings: what they tell, and that programs can read them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "costs.h"
#include "hilbert_map.h"
#include "played_facts.h"
#include "snap_tree.h"
#include "svg.h"

namespace snbf {
namespace {

using testing::HasSubstr;
using testing::Not;

Extents with(uint64_t extent_cnt, std::initializer_list<uint64_t> set, uint64_t tail_bytes = 4096) {
  Extents extents(extent_cnt, 4096, (extent_cnt - 1) * 4096 + tail_bytes);
  for (uint64_t extent : set) extents.set(extent);
  return extents;
}

// Pixels in the path of that colour.
uint64_t area(const std::string& svg, const std::string& colour) {
  const std::regex path("<path fill=\"" + colour + "\" d=\"([^\"]*)\"");
  const std::regex run(R"(h(\d+)v(\d+)h-\d+z)");
  std::smatch found;
  uint64_t pixels = 0;
  if (!std::regex_search(svg, found, path)) return 0;
  const std::string data = found[1];
  for (std::sregex_iterator at(data.begin(), data.end(), run), end; at != end; ++at) {
    pixels += std::stoull((*at)[1]) * std::stoull((*at)[2]);
  }
  return pixels;
}

constexpr uint64_t kAll = 512 * 512;

TEST(Hilbert, VisitsEveryCellOnceAndStepsToANeighbour) {
  for (uint32_t order = 1; order <= 5; ++order) {
    std::set<std::pair<uint32_t, uint32_t>> seen;
    Point2 before = hilbert(order, 0);
    for (uint64_t distance = 0; distance < (uint64_t{1} << (2 * order)); ++distance) {
      const Point2 at = hilbert(order, distance);
      ASSERT_LT(at.x, 1u << order);
      ASSERT_LT(at.y, 1u << order);
      ASSERT_TRUE(seen.emplace(at.x, at.y).second);
      const auto step = std::abs(int(at.x) - int(before.x)) + std::abs(int(at.y) - int(before.y));
      ASSERT_EQ(step, distance == 0 ? 0 : 1);
      before = at;
    }
  }
}

TEST(HilbertMap, TellsFreeUsedAndChangedApart) {
  const DeviceMap map{"data", "since the last backup", with(16, {0, 1, 8}),
                      with(16, {0, 1, 2, 3, 4}), "monday"};
  const std::string svg = hilbert_svg(map);
  EXPECT_EQ(area(svg, "#8a2f02"), kAll / 16 * 2) << "changed and in use";
  EXPECT_EQ(area(svg, "#f5d76e"), kAll / 16 * 1) << "changed and free";
  EXPECT_EQ(area(svg, "#8db9dd"), kAll / 16 * 3) << "in use";
  EXPECT_EQ(area(svg, "#f1f3f4"), kAll / 16 * 10) << "free";
  EXPECT_THAT(svg, HasSubstr("12K of 64K changed since the last backup (18.8 %)"));
  EXPECT_THAT(svg, HasSubstr("as the snap monday has it"));
}

TEST(HilbertMap, WithoutAMapOfWhatIsUsedItSaysSo) {
  const std::string svg =
      hilbert_svg({"data", "since the last backup", with(16, {3}), std::nullopt, ""});
  EXPECT_EQ(area(svg, "#8a2f02"), kAll / 16);
  EXPECT_EQ(area(svg, "#dfe5ea"), kAll / 16 * 15);
  EXPECT_THAT(svg, HasSubstr("only a started snap can tell"));
  EXPECT_THAT(svg, Not(HasSubstr(">free<")));
}

TEST(HilbertMap, AnyChangeIsSeenInTheLargestDevice) {
  Extents changed(uint64_t{1} << 22, 4096, uint64_t{1} << 34);
  changed.set(77);
  const std::string svg = hilbert_svg({"data", "", changed, std::nullopt, ""});
  EXPECT_EQ(area(svg, "#f4a259"), 16u) << "one square of the palest shade";
}

TEST(HilbertMap, EscapesTheName) {
  const std::string svg = hilbert_svg({"<a&b>", "", with(4, {}), std::nullopt, ""});
  EXPECT_THAT(svg, HasSubstr("&lt;a&amp;b&gt;"));
  EXPECT_THAT(svg, Not(HasSubstr("<a&b>")));
}

TEST(Svg, HasATitleAndADescriptionForThoseWhoDoNotSee) {
  const std::string svg = svg_file(10, 20, "a \"title\"", "about <it>", "");
  EXPECT_THAT(svg, HasSubstr("role=\"img\" aria-labelledby=\"title about\""));
  EXPECT_THAT(svg, HasSubstr("<title id=\"title\">a &quot;title&quot;</title>"));
  EXPECT_THAT(svg, HasSubstr("<desc id=\"about\">about &lt;it&gt;</desc>"));
}

TEST(CostCurve, JoinsTwoExtentsAtEachStep) {
  const std::vector<Cost> costs = cost_curve(with(16, {0, 3, 9}));
  ASSERT_EQ(costs.size(), 5u);
  EXPECT_EQ(costs[0].extent_size, 4096u);
  EXPECT_EQ(costs[0].bytes, 3 * 4096u);
  EXPECT_EQ(costs[1].bytes, 3 * 8192u);
  EXPECT_EQ(costs[2].bytes, 2 * 16384u);
  EXPECT_EQ(costs[3].extents, 2u);
  EXPECT_EQ(costs[4].bytes, 65536u) << "one extent is the whole device";
  EXPECT_EQ(costs[0].memory, 4u);
  EXPECT_EQ(costs[4].memory, 2u);
}

TEST(CostCurve, TheLastExtentEndsWithTheDevice) {
  const std::vector<Cost> costs = cost_curve(with(5, {4}, 512));
  EXPECT_EQ(costs[0].bytes, 512u);
  EXPECT_EQ(costs[1].bytes, 512u) << "it has no partner";
  EXPECT_EQ(costs.back().bytes, 4 * 4096u + 512);
  EXPECT_EQ(costs.back().extents, 1u);
}

TEST(CostCurve, EndsAt64M) {
  Extents extents(uint64_t{1} << 16, 1 << 20, uint64_t{1} << 36);
  EXPECT_EQ(cost_curve(extents).back().extent_size, uint64_t{64} << 20);
  EXPECT_TRUE(cost_curve(Extents()).empty());
}

TEST(Costs, AreATableADrawingAndJson) {
  const Extents changed = with(16, {0, 3, 9});
  const std::vector<Cost> costs = cost_curve(changed);
  const std::string text = costs_text(changed.dev_size(), costs, false);
  EXPECT_THAT(text, HasSubstr("EXTENT  EXTENTS  COPIED   OF ALL  BITMAPS\n"));
  EXPECT_THAT(text, HasSubstr("    4K        3     12K   18.8 %        4  #####\n"));
  EXPECT_THAT(text, HasSubstr("   64K        1     64K  100.0 %        2  ######"));
  const std::string svg = costs_svg("data", "since the last backup", changed.dev_size(), costs);
  for (const char* part : {"copies 12K at 4K", ">64K<", ">32K<"}) EXPECT_THAT(svg, HasSubstr(part));
  EXPECT_EQ(costs_json(costs)[1]["copied_bytes"], 3 * 8192);
}

TEST(SnapTree, HangsTheSnapsOnTheirNodeOldestFirst) {
  EXPECT_EQ(snap_tree_text(played_facts(), 0, false),
            "data (/dev/snbf/snbf0) over /dev/sdb1\n"
            "|- monday: lost: a copy failed, 4K copied\n"
            "`- tuesday: started, 3M copied, its disk is full in 2 h 10 min\n");
}

TEST(SnapTree, TheDrawingShowsStatesInWordsAndBarsToScale) {
  const std::string svg = snap_tree_svg({played_facts()});
  EXPECT_LT(svg.find(">monday<"), svg.find(">tuesday<"));
  EXPECT_THAT(svg, HasSubstr("lost: a copy failed"));
  EXPECT_THAT(svg, HasSubstr("width=\"200.0\" height=\"14.0\" fill=\"#2f78b7\""));
  EXPECT_THAT(svg, HasSubstr("width=\"2.0\" height=\"14.0\" fill=\"#c8500a\""));
}

TEST(SnapTree, NothingIsDrawnForNothing) {
  EXPECT_THAT(snap_tree_svg({}), HasSubstr("no nodes"));
  NodeFacts bare = played_facts();
  bare.snaps.clear();
  EXPECT_THAT(snap_tree_svg({bare}), HasSubstr("no snaps"));
}

}  // namespace
}  // namespace snbf
