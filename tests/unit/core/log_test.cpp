#include "core/log.h"

#include <string>

#include "base/errno.h"
#include "platform/sync.h"
#include "sim_test.h"

namespace snbf::sim {
namespace {

// The driver's log state as it is found, and nothing left of it.
struct LogState {
  explicit LogState(int level) { snbf_debug = level; }
  ~LogState() {
    snbf_debug_destroy();
    snbf_debug = 1;
  }
};

SIM_TEST(Log, ErrorsArePrintedWhateverTheLevel) {
  LogState state{0};
  snbf_log(kLogError, "%s(): Memory allocation failed.", "snbf_char_ioctl");
  ASSERT_EQ(sim.log().lines().size(), 1u);
  EXPECT_EQ(sim.log().lines()[0].raw, "<3>ERROR: snbf_char_ioctl(): Memory allocation failed.\n");
}

SIM_TEST(Log, LevelsOneToFourArePrintedUpToTheDebugLevel) {
  for (int debug = -1; debug <= 5; ++debug) {
    LogState state{debug};
    for (int level = 1; level <= 4; ++level) {
      sim.log().clear();
      snbf_log(level, "%s(): level %d", "test", level);
      EXPECT_EQ(sim.log().lines().size(), level <= debug ? 1u : 0u) << debug << " " << level;
    }
  }
}

SIM_TEST(Log, LevelsWithoutARuleAreAlwaysPrintedAsInformation) {
  LogState state{0};
  for (int level : {0, 5, 254, 256, -1, -255}) {
    sim.log().clear();
    snbf_log(level, "%s(): odd", "test");
    ASSERT_EQ(sim.log().lines().size(), 1u) << level;
    EXPECT_EQ(sim.log().lines()[0].raw.substr(0, 3), "<6>");
  }
}

SIM_TEST(Log, EveryLineEndsInExactlyOneNewline) {
  LogState state{1};
  const std::string pid = "<6>0007: ";
  sim.join(sim.spawn(
      "seven",
      [&] {
        snbf_log(1, "%s(): with\n", "test");
        snbf_log(1, "%s(): without", "test");
        snbf_log(kLogError, "%s(): with\n", "test");
        snbf_log(1, "\n");
      },
      7));
  ASSERT_EQ(sim.log().lines().size(), 4u);
  EXPECT_EQ(sim.log().lines()[0].raw, pid + "test(): with\n");
  EXPECT_EQ(sim.log().lines()[1].raw, pid + "test(): without\n");
  EXPECT_EQ(sim.log().lines()[2].raw, "<3>ERROR: test(): with\n");
  EXPECT_EQ(sim.log().lines()[3].raw, pid + "\n");
}

SIM_TEST(Log, LinesCarryTheProcessOrThatItIsAnInterrupt) {
  LogState state{1};
  sim.join(sim.spawn(
      "seven", [] { snbf_log(1, "%s(): here", "test"); }, 7));
  sim.join(sim.spawn(
      "large", [] { snbf_log(1, "%s(): here", "test"); }, 4194303));
  sim.in_interrupt([] { snbf_log(1, "%s(): here", "test"); });
  sim.in_interrupt([] { snbf_log(kLogError, "%s(): here", "test"); });
  ASSERT_EQ(sim.log().lines().size(), 4u);
  EXPECT_EQ(sim.log().lines()[0].raw, "<6>0007: test(): here\n");
  EXPECT_EQ(sim.log().lines()[1].raw, "<6>4194303: test(): here\n");
  EXPECT_EQ(sim.log().lines()[2].raw, "<6> int: test(): here\n");
  EXPECT_EQ(sim.log().lines()[3].raw, "<3>ERROR: test(): here\n");
}

SIM_TEST(Log, LongMessagesAreCutToTheBuffer) {
  LogState state{1};
  const std::string text(5000, 'x');
  snbf_log(kLogError, "%s", text.c_str());
  EXPECT_EQ(sim.log().lines()[0].raw, "<3>ERROR: " + text.substr(0, 2047) + "\n");
  const std::string fits(2047, 'y');
  snbf_log(kLogError, "%s", fits.c_str());
  EXPECT_EQ(sim.log().lines()[1].raw, "<3>ERROR: " + fits + "\n");
}

SIM_TEST(LogBuffer, IsMadeByTheFirstLineOrByInit) {
  LogState state{1};
  EXPECT_EQ(snbf_debug_buffer, nullptr);
  EXPECT_EQ(snbf_debug_buffer_size, 0);
  snbf_log(1, "%s(): first", "test");
  char* const buffer = snbf_debug_buffer;
  EXPECT_NE(buffer, nullptr);
  EXPECT_EQ(snbf_debug_buffer_size, 2048);
  EXPECT_EQ(snbf_debug_init(), 0);
  EXPECT_EQ(snbf_debug_buffer, buffer);
  EXPECT_EQ(snbf_debug_destroy(), 0);
  EXPECT_EQ(snbf_debug_buffer, nullptr);
  EXPECT_EQ(snbf_debug_buffer_size, 0);
  EXPECT_EQ(snbf_debug_destroy(), 0);
  EXPECT_EQ(snbf_debug_init(), 0);
  EXPECT_NE(snbf_debug_buffer, nullptr);
}

SIM_TEST(LogBuffer, IsMadeInAnInterruptWithoutSleeping) {
  LogState state{1};
  sim.in_interrupt([] { snbf_log(1, "%s(): first", "test"); });
  EXPECT_EQ(sim.log().last(), " int: test(): first");
}

SIM_TEST(LogBuffer, IsMadeUnderASpinLockWithoutSleeping) {
  LogState state{1};
  plat_spin spin;
  snbf_plat_spin_init(&spin, "test");
  snbf_plat_spin_lock(&spin);
  snbf_log(1, "%s(): first", "test");
  snbf_plat_spin_unlock(&spin);
  EXPECT_TRUE(sim.log().contains("test(): first"));
}

SIM_TEST(LogBuffer, FailureToMakeItIsAnsweredAndLosesNoLine) {
  LogState state{1};
  sim.fail_always(Fault::Heap);
  EXPECT_EQ(snbf_debug_init(), -ENOMEM);
  EXPECT_EQ(snbf_debug_buffer, nullptr);
  EXPECT_EQ(snbf_debug_buffer_size, 2048);
  snbf_log(kLogError, "%s(): Memory allocation failed.", "test");
  EXPECT_EQ(sim.log().lines()[0].raw, "<3>ERROR: test(): Memory allocation failed.\n");
  const std::string text(5000, 'x');
  snbf_log(kLogError, "%s", text.c_str());
  EXPECT_EQ(sim.log().lines()[1].raw, "<3>ERROR: " + text.substr(0, 255) + "\n");
  sim.clear_faults();
}

}  // namespace
}  // namespace snbf::sim
