#include "util/pool.h"

#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr int kReserve = 6;

class PoolParts {
 public:
  explicit PoolParts(Sim& kernel) : sim(kernel) {
    EXPECT_EQ(pool.create("records", 32, kReserve), 0);
    sim.set_memory_pressure(true);
  }
  ~PoolParts() {
    sim.set_memory_pressure(false);
    give_back(records);
    pool.destroy();
  }
  bool take_all(u64 count, AllocMode mode, std::vector<void*>& into) {
    return pool.take_all(
        count, mode, [&](void* record) { into.push_back(record); }, [&] { give_back(into); });
  }
  void give_back(std::vector<void*>& from) {
    for (void* record : from) pool.give_back(record);
    from.clear();
  }

  Sim& sim;
  RecordPool pool;
  std::vector<void*> records;
};

SIM_TEST(RecordPool, AtomicGetsAllOrNothing) {
  PoolParts parts(sim);
  ASSERT_TRUE(parts.take_all(4, PLAT_ALLOC_ATOMIC, parts.records));
  std::vector<void*> more;
  EXPECT_FALSE(parts.take_all(3, PLAT_ALLOC_ATOMIC, more));
  EXPECT_TRUE(more.empty());
  EXPECT_TRUE(parts.take_all(2, PLAT_ALLOC_ATOMIC, more));
  parts.give_back(more);
}

// Each task wants more than half of the reserve: taken one by one, two of them would wait for each
// other for ever.
SIM_TEST_SEEDS(RecordPool, TasksThatTakeSeveralNeverWaitForEachOther, 50) {
  PoolParts parts(sim);
  for (int task = 0; task < 4; ++task) {
    sim.spawn("taker", [&] {
      for (int i = 0; i < 3; ++i) {
        std::vector<void*> mine;
        EXPECT_TRUE(parts.take_all(4, PLAT_ALLOC_NOIO, mine));
        EXPECT_EQ(mine.size(), 4u);
        sim.sleep_us(sim.random(50));
        parts.give_back(mine);
      }
    });
  }
  sim.join_all();
}

SIM_TEST(RecordPool, ExistsBetweenCreateAndDestroy) {
  RecordPool pool;
  EXPECT_FALSE(pool.exists());
  for (Fault fault : {Fault::CacheCreate, Fault::PoolCreate}) {
    sim.fail_nth(fault, 1);
    EXPECT_EQ(pool.create("records", 32, kReserve), -ENOMEM);
    EXPECT_FALSE(pool.exists());
  }
  ASSERT_EQ(pool.create("records", 32, kReserve), 0);
  EXPECT_TRUE(pool.exists());
  pool.destroy();
  EXPECT_FALSE(pool.exists());
}

}  // namespace
}  // namespace snbf::sim
