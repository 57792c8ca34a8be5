// Everything at once, or nearly: each seed decides which people are about, what breaks, and how a
// life ends. Judged by the models of both bitmaps, of the partition and of every snap's image.
//
//   SNBF_PLAN="seed=7 on=agent,full steps=9 lives=1"  runs one plan, and prints what became of it
//   SNBF_SWARM=FIRST-LAST                             runs these seeds, a line each
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "swarm_run.h"

namespace snbf::rig {
namespace {

constexpr int kSeeds = 120;
constexpr u64 kCutsMin = 30;
// What the runs of `make check` must come to, together; some half of what they do.
constexpr Tally kFloors = {
    {150, 500, 600, 300, 320, 200, 70, 4, 900, 600, 20000, 20, 800, 11000, 18, 15, 10, 150, 420}};

void tell(const char* head, const Tally& tally) {
  std::printf("%s", head);
  for (unsigned i = 0; i < std::size(kMetNames); ++i)
    std::printf(" %s=%" PRIu64, kMetNames[i], tally.counts[i]);
  std::printf("\n");
}

void run_and_tell(const Plan& plan) {
  std::printf("plan %s\n", to_text(plan).c_str());
  std::fflush(stdout);
  SCOPED_TRACE("SNBF_PLAN=\"" + to_text(plan) + "\"");
  const Outcome outcome = run_plan(plan);
  std::printf("%s steps=%" PRIu64 " hash=%016" PRIx64 " cuts=%d\n",
              testing::Test::HasFailure() ? "failed" : "done", outcome.steps, outcome.hash,
              outcome.cuts);
  tell("met", outcome.tally);
  std::fflush(stdout);
}

TEST(Swarm, EverySeedKeepsEveryPromise) {
  const char* plan_text = std::getenv("SNBF_PLAN");
  const char* seeds_text = std::getenv("SNBF_SWARM");
  if (plan_text != nullptr) {
    Plan plan;
    ASSERT_TRUE(parse_plan(plan_text, &plan)) << plan_text;
    run_and_tell(plan);
    return;
  }
  u64 first = 1, last = 0;
  if (seeds_text != nullptr) {
    ASSERT_EQ(std::sscanf(seeds_text, "%" SCNu64 "-%" SCNu64, &first, &last), 2) << seeds_text;
    for (u64 seed = first; seed <= last && !testing::Test::HasFailure(); ++seed)
      run_and_tell(plan_of_seed(seed));
    return;
  }
  u64 steps = 0;
  u64 runs = 0, cuts = 0;
  Tally tally;
  sim::for_seeds(kSeeds, [&](u64 seed) {
    const Plan plan = plan_of_seed(seed);
    SCOPED_TRACE("SNBF_PLAN=\"" + to_text(plan) + "\"");
    const Outcome outcome = run_plan(plan);
    steps += outcome.steps;
    cuts += static_cast<u64>(outcome.cuts);
    tally.add(outcome.tally);
    ++runs;
  });
  std::printf("  %" PRIu64 " runs, %" PRIu64 " power cuts, %" PRIu64 " steps\n", runs, cuts, steps);
  tell(" ", tally);
  if (runs < kSeeds) return;  // a share of them, or one failed
  EXPECT_GE(cuts, kCutsMin);
  for (unsigned i = 0; i < std::size(kMetNames); ++i)
    EXPECT_GE(tally.counts[i], kFloors.counts[i]) << kMetNames[i];
}

TEST(Swarm, TheSameSeedGoesTheSameWay) {
  sim::for_seeds(12, [](u64 seed) {
    const Outcome one = run_plan(plan_of_seed(seed));
    const Outcome other = run_plan(plan_of_seed(seed));
    EXPECT_EQ(one.hash, other.hash);
    EXPECT_EQ(one.steps, other.steps);
  });
}

TEST(Swarm, APlanIsItsText) {
  for (u64 seed = 1; seed <= 50; ++seed) {
    const Plan plan = plan_of_seed(seed);
    Plan again;
    ASSERT_TRUE(parse_plan(to_text(plan), &again));
    EXPECT_EQ(to_text(again), to_text(plan));
    EXPECT_EQ(again.traits, plan.traits);
  }
  Plan plan;
  EXPECT_FALSE(parse_plan("seed=1 on=agents", &plan));
  EXPECT_FALSE(parse_plan("sneed=1", &plan));
  EXPECT_FALSE(parse_plan("seed", &plan));
}

}  // namespace
}  // namespace snbf::rig
