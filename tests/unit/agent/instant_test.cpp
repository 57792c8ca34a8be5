// SPDX-License-Identifier: GPL-2.0-only
#include "instant.h"

#include <gmock/gmock.h>

#include "failure.h"

namespace snbf {
namespace {

TEST(MirrorStateOf, ReadsWhatDmsetupSays) {
  const MirrorState state =
      mirror_state_of("0 262144 mirror 2 43:0 254:32 200/256 1 AD 1 core\n");
  EXPECT_EQ(state.done, 200u);
  EXPECT_EQ(state.all, 256u);
  EXPECT_EQ(state.health, "AD");
}

TEST(MirrorStateOf, IsNoOtherTargets) {
  EXPECT_THROW(mirror_state_of("0 262144 linear\n"), Failure);
  EXPECT_THROW(mirror_state_of(""), Failure);
}

TEST(Instant, HasANameThatTheMapperTakes) {
  for (const char* name : {"", "a/b", "-a", ".", "control", "a b"}) {
    InstantWish wish;
    wish.name = name;
    wish.scratch = "/nonexistent";
    EXPECT_THROW(Instant{wish}, Failure) << name;
  }
}

}  // namespace
}  // namespace snbf
