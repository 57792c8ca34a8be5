#include "sim_test.h"

#include <algorithm>
#include <cstdlib>

#include "core/log.h"

namespace snbf::sim {

namespace {

constexpr int kLogTail = 40;
constexpr int kFailuresMax = 10'000;

u64 environment(const char* name) {
  const char* text = getenv(name);
  return text == nullptr ? 0 : strtoull(text, nullptr, 0);
}

std::string log_tail(Sim& sim) {
  const auto& lines = sim.log().lines();
  std::string text;
  const std::size_t from = lines.size() > kLogTail ? lines.size() - kLogTail : 0;
  for (std::size_t i = from; i < lines.size(); ++i) text += "  | " + lines[i].text + "\n";
  return text.empty() ? "  (nothing in the kernel log)\n" : "kernel log:\n" + text;
}

// Told by Sim::run, wherever the test made its Sim.
class FatalIsFailure : public ::testing::Environment {
 public:
  void SetUp() override {
    Sim::failure_handler = [](const std::string& message) { ADD_FAILURE() << message; };
  }
};
[[maybe_unused]] const auto* const fatal_is_failure =
    ::testing::AddGlobalTestEnvironment(new FatalIsFailure);

}  // namespace

void for_seeds(int n, const std::function<void(u64 seed)>& fn) {
  const u64 only = environment("SNBF_SEED");
  const u64 times = environment("SNBF_SEEDS");
  // A slow build runs a share of the seeds: one in so many, but always the first few.
  const u64 share = environment("SNBF_SEED_SHARE");
  const u64 all = static_cast<u64>(n) * (times != 0 ? times : 1);
  const u64 last = share > 1 ? std::min(all, all / share + 3) : all;
  for (u64 seed = only != 0 ? only : 1; seed <= (only != 0 ? only : last); ++seed) {
    SCOPED_TRACE("SNBF_SEED=" + std::to_string(seed));
    fn(seed);
    if (::testing::Test::IsSkipped()) return;
    if (!::testing::Test::HasFailure()) continue;
    printf("failed with SNBF_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return;
  }
}

bool fails_at(Sim& sim, Fault kind, int nth, const std::function<void()>& fn) {
  if (nth > kFailuresMax) {
    ADD_FAILURE() << "the " << kFailuresMax << "th call is reached: does this loop end?";
    return false;
  }
  SCOPED_TRACE("with call " + std::to_string(nth) + " failing");
  sim.fail_nth(kind, static_cast<u64>(nth));
  fn();
  const bool reached = sim.fault_reached(kind);
  sim.clear_faults();
  return reached && !::testing::Test::HasFatalFailure();
}

void run_sim_body(u64 seed, const std::function<void(Sim&)>& fn) {
  Sim sim({.seed = seed});
  const bool failed_before = ::testing::Test::HasFailure();
  sim.run([&] {
    fn(sim);
    sim.join_all();
    // The log's buffer comes by itself with the first line.
    if (!sim.driver_loaded()) snbf_debug_destroy();
    if (!::testing::Test::HasFailure()) sim.check_nothing_left("at the end of the test");
  });
  if (!failed_before && ::testing::Test::HasFailure()) printf("%s", log_tail(sim).c_str());
  if (sim.expects_fatal() && !sim.fatal_as_expected() && sim.fatal_message().empty()) {
    ADD_FAILURE() << "the run should have ended with a fatal message";
  }
}

}  // namespace snbf::sim
