// Start and end of the COW thread by its verbs; what it does in between is in kcowd_test.cpp and pass_test.cpp.
#include "snap/cowthread.h"

#include "snap_bench.h"

namespace snbf::sim {
namespace {

SIM_TEST(CowThreadVerbs, RefuseNoThread) {
  SnapBench bench(sim);
  EXPECT_EQ(snbf_cowthread_start(nullptr, "kcowd", bench.filter()), -EINVAL);
  EXPECT_EQ(snbf_cowthread_shutdown(nullptr), -EINVAL);
  EXPECT_EQ(snbf_cowthread_abort(nullptr), -EINVAL);
  for (const char* verb : {"start", "shutdown", "abort"}) {
    EXPECT_EQ(bench.errors("snbf_cowthread_" + std::string(verb) +
                           "(): NULL thread pointer passed as input"),
              1);
  }
}

SIM_TEST(CowThreadVerbs, StartOnce) {
  SnapBench bench(sim);
  bench.add_started(7);
  CowThread& thread = bench.filter()->cowthread;
  const int pid = thread.pid.load();
  EXPECT_EQ(snbf_cowthread_start(&thread, "kcowd", bench.filter()), -EALREADY);
  EXPECT_EQ(bench.errors("snbf_cowthread_start(): COW thread is already running: pid=" +
                         std::to_string(pid)),
            1);
  EXPECT_EQ(thread.pid.load(), pid);
}

SIM_TEST(CowThreadVerbs, EndOneThatIsNotThere) {
  SnapBench bench(sim);
  CowThread& thread = bench.filter()->cowthread;
  EXPECT_EQ(snbf_cowthread_shutdown(&thread), 0);
  EXPECT_EQ(snbf_cowthread_abort(&thread), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

// It ends behind the pass that it is in; who is still queued then is failed.
SIM_TEST(CowThreadVerbs, AbortFailsWhatIsQueued) {
  SnapBench bench(sim);
  bench.add_started(7);
  CowThread& thread = bench.filter()->cowthread;
  bench.disk->hold(true);  // the copy's read
  const Io write =
      sim.submit(kNode(kOrigin), {.op = Op::Write, .sector = 8, .data = Bytes(4096, 0x11)});
  sim.sleep_us(1000);
  Task* quitter = sim.spawn("quitter", [&] { EXPECT_EQ(snbf_cowthread_abort(&thread), 0); });
  sim.sleep_us(1000);
  bench.disk->hold(false);
  bench.disk->release_all();
  sim.join(quitter);
  EXPECT_EQ(write.wait(), -EIO);
  EXPECT_EQ(thread.pid.load(), 0);
  EXPECT_TRUE(sim.log().contains("snbf_cowthread_abort(): Aborting COW thread kcowd (pid="));
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    ASSERT_EQ(snbf_cowthread_start(&thread, name, bench.filter()), 0);
    EXPECT_STREQ(thread.name, "kcowd");
    EXPECT_EQ(bench.write(1, 0x22), 0);
    EXPECT_EQ(bench.read(7, 1), 0);
    EXPECT_EQ(snbf_cowthread_shutdown(&thread), 0);
  }
}

}  // namespace
}  // namespace snbf::sim
