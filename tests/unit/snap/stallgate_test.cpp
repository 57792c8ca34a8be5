#include "snap/stallgate.h"

#include <memory>

#include "sim_test.h"

namespace snbf::sim {
namespace {

constexpr u64 kLimitUs = kStallLimitMs * u64{1000};

struct Gate : std::unique_ptr<StallGate> {
  Gate() : std::unique_ptr<StallGate>(std::make_unique<StallGate>()) { get()->init(); }
};

SIM_TEST(StallGate, TheWatchdogIsLetInWhereAnOperationHasLastedForTheLimit) {
  Gate gate;
  EXPECT_FALSE(gate->step_in()) << "there is none";
  gate->begin_file_operation(7);
  EXPECT_FALSE(gate->step_in()) << "it has only begun";
  sim.sleep_us(kLimitUs + 1000);
  EXPECT_TRUE(gate->step_in());
  EXPECT_EQ(gate->snap_minor(), 7u);
  bool ended = false;
  Task* thread = sim.spawn("thread", [&] {
    EXPECT_TRUE(gate->end_file_operation());
    ended = true;
  });
  sim.sleep_us(1000);
  EXPECT_FALSE(ended) << "while the watchdog is in";
  gate->step_out();
  sim.join(thread);
  gate->begin_file_operation(8);
  EXPECT_FALSE(gate->end_file_operation()) << "nobody was in meanwhile";
}

// The watchdog goes to rest as soon as it sees no operation, and there may be one by then.
SIM_TEST_SEEDS(StallGate, NoOperationBeginsUnseen, 100) {
  Gate gate;
  u64 seen_us = 0;
  Task* watchdog = sim.spawn("watchdog", [&] {
    EXPECT_TRUE(gate->wait_for_stall());
    seen_us = sim.now_us();
  });
  for (u32 n = 0; n < 20; ++n) {
    gate->begin_file_operation(n);
    sim.sleep_us(sim.random(20));
    EXPECT_FALSE(gate->end_file_operation());
  }
  gate->begin_file_operation(20);
  const u64 began_us = sim.now_us();
  sim.join(watchdog);
  EXPECT_GE(seen_us, began_us + kLimitUs - 10'000);
  EXPECT_LE(seen_us, began_us + kLimitUs + 10'000);
  EXPECT_FALSE(gate->end_file_operation());
}

SIM_TEST(StallGate, ClosedItEndsTheWatchdog) {
  for (const bool in_operation : {false, true}) {
    Gate gate;
    if (in_operation) gate->begin_file_operation(7);
    Task* watchdog = sim.spawn("watchdog", [&] { EXPECT_FALSE(gate->wait_for_stall()); });
    sim.sleep_us(1000);
    gate->close();
    sim.join(watchdog);
  }
}

}  // namespace
}  // namespace snbf::sim
