// GoogleTest over the simulated kernel.
//
//   SIM_TEST(Suite, Name) { ... }          the body is a task of a fresh kernel `sim`; run once a
//   seed (8 seeds) SIM_TEST_SEEDS(Suite, Name, n) { ... } as often as n seeds for_seeds(n, [](u64
//   seed) { ... });    for tests that make their Sims themselves for (int nth = 1; fails_at(sim,
//   Fault::Heap, nth, [&] { ... }); ++nth) {}
//
// A SIM_TEST fails with its seed, the fatal message and the tail of the kernel log.
#pragma once

#include <gtest/gtest.h>

#include "sim.h"

namespace snbf::sim {

// Calls fn(seed) for seeds 1 to n (times SNBF_SEEDS, or only SNBF_SEED, or a share of them: SNBF_SEED_SHARE); stops at the first that
// fails.
void for_seeds(int n, const std::function<void(u64 seed)>& fn);

// Runs `fn` with the nth call of the kind failing. True: the fault was met, so try the next one.
// Ends at 10000.
bool fails_at(Sim& sim, Fault kind, int nth, const std::function<void()>& fn);

// Runs `fn` as a task of its own kernel for one seed; reports a fatal end or leftovers as failures
// of the test.
void run_sim_body(u64 seed, const std::function<void(Sim&)>& fn);

class SimBody {
 public:
  explicit SimBody(Sim& kernel) : sim(kernel) {}
  virtual ~SimBody() = default;
  virtual void body() = 0;
  Sim& sim;
};

#define SIM_TEST_SEEDS(suite, name, seeds)                        \
  struct suite##_##name##_Body : ::snbf::sim::SimBody {           \
    using SimBody::SimBody;                                       \
    void body() override;                                         \
  };                                                              \
  TEST(suite, name) {                                             \
    ::snbf::sim::for_seeds(seeds, [](::snbf::sim::u64 seed) {     \
      ::snbf::sim::run_sim_body(seed, [](::snbf::sim::Sim& sim) { \
        suite##_##name##_Body test(sim);                          \
        test.body();                                              \
      });                                                         \
    });                                                           \
  }                                                               \
  void suite##_##name##_Body::body()

#define SIM_TEST(suite, name) SIM_TEST_SEEDS(suite, name, 8)

}  // namespace snbf::sim
