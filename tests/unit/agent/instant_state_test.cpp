// SPDX-License-Identifier: GPL-2.0-only
#include "instant_state.h"

#include <gmock/gmock.h>

#include "failure.h"

namespace snbf {
namespace {

using Kind = LiveTable::Kind;

TEST(MirrorStateOf, ReadsWhatDmsetupSays) {
  const MirrorState state = mirror_state_of("0 262144 mirror 2 43:0 254:32 200/256 1 AD 1 core\n");
  EXPECT_EQ(state.done, 200u);
  EXPECT_EQ(state.all, 256u);
  EXPECT_EQ(state.health, "AD");
}

TEST(MirrorStateOf, IsNoOtherTargets) {
  EXPECT_THROW(mirror_state_of("0 262144 linear\n"), Failure);
  EXPECT_THROW(mirror_state_of(""), Failure);
}

TEST(LiveTableOf, ReadsAMirrorAndWhatItBecomes) {
  const LiveTable mirror =
      live_table_of("0 65536 mirror core 1 1024 2 43:0 0 254:16 0 1 handle_errors\n");
  EXPECT_EQ(mirror.kind, Kind::Mirror);
  EXPECT_EQ(mirror.sectors, 65536u);
  EXPECT_EQ(mirror.source, "43:0");
  EXPECT_EQ(mirror.target, "254:16");
  const LiveTable linear = live_table_of("0 65536 linear 254:16 0\n");
  EXPECT_EQ(linear.kind, Kind::Linear);
  EXPECT_EQ(linear.sectors, 65536u);
  EXPECT_EQ(linear.target, "254:16");
}

TEST(LiveTableOf, TakesNothingElseForIt) {
  for (const char* text :
       {"", "0 8 zero", "0 65536 linear 254:16 2048", "0 65536 mirror core 1 1024 2 43:0 0",
        "0 65536 snapshot 254:0 254:16 P 8"}) {
    EXPECT_EQ(live_table_of(text).kind, Kind::Other) << text;
  }
}

TEST(AMark, SaysWhatItWasGiven) {
  const Mark mark = parse_mark(to_text({"PARTUUID=1-2", "/b/\"a\".qcow2"}), "m");
  EXPECT_EQ(mark.target, "PARTUUID=1-2");
  EXPECT_EQ(mark.image, "/b/\"a\".qcow2");
  for (const char* text : {"", "{", "[]", "{}", R"({"target": 1, "image": "x"})"}) {
    EXPECT_THROW(parse_mark(text, "m"), Failure) << text;
  }
}

Stage stage(Kind device, bool suspended, bool overlay, bool mark) {
  return stage_of({device, suspended, overlay, mark});
}

TEST(StageOf, TakesAMarkForTrueOnlyOfASuspendedMirror) {
  EXPECT_EQ(stage(Kind::Mirror, false, true, false), Stage::Copying);
  EXPECT_EQ(stage(Kind::Mirror, true, true, false), Stage::Copying);
  EXPECT_EQ(stage(Kind::Mirror, false, true, true), Stage::Copying);
  EXPECT_EQ(stage(Kind::Mirror, true, true, true), Stage::Copied);
}

TEST(StageOf, NeverMirrorsAnOverlayBehindAMark) {
  EXPECT_EQ(stage(Kind::Other, false, true, false), Stage::LeftOver);
  EXPECT_EQ(stage(Kind::Other, false, true, true), Stage::Whole);
  EXPECT_EQ(stage(Kind::Other, false, false, true), Stage::Whole);
  EXPECT_EQ(stage(Kind::Other, false, false, false), Stage::None);
}

TEST(StageOf, LeavesATargetAloneWhenNothingIsLeft) {
  EXPECT_EQ(stage(Kind::Linear, false, true, true), Stage::Switched);
  EXPECT_EQ(stage(Kind::Linear, false, false, true), Stage::Switched);
  EXPECT_EQ(stage(Kind::Linear, false, true, false), Stage::Switched);
  EXPECT_EQ(stage(Kind::Linear, false, false, false), Stage::Over);
}

}  // namespace
}  // namespace snbf
