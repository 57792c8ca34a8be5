// Devices, requests, nodes, and what the kernel does around a driver, with a driver made of a few
// lines.
#include <cstring>

#include "platform/block.h"
#include "platform/control.h"
#include "platform/disk.h"
#include "platform/memory.h"
#include "platform/sync.h"
#include "platform/task.h"
#include "sim_test.h"

using namespace snbf::sim;

namespace {

constexpr int kMode = PLAT_MODE_READ | PLAT_MODE_WRITE;
constexpr plat_devt kNode = dev(100, 3);

// A driver with one node that passes everything on in place.
struct Toy {
  plat_bdev* below;
  plat_disk* disk;
  std::function<void(plat_bio*)> on_request;
  std::function<void()> on_open;
  u32 largest;
  int requests;
};
Toy toy;

int toy_request(void*, plat_bio* bio) {
  plat_bio_info info;
  snbf_plat_bio_info(bio, &info);
  toy.largest = std::max(toy.largest, info.size_bytes);
  ++toy.requests;
  if (toy.on_request) {
    toy.on_request(bio);
  } else {
    snbf_plat_bio_forward(bio, toy.below);
  }
  return 0;
}

void toy_start(Sim& sim, plat_devt below) {
  toy = {};
  Entries entries;
  entries.make_request = toy_request;
  entries.block_open = [](plat_bdev*, plat_devt) {
    if (toy.on_open) toy.on_open();
    return 0;
  };
  entries.block_release = [](plat_devt) { return 0; };
  sim.set_entries(entries);
  ASSERT_EQ(snbf_plat_bdev_open(below, kMode, PLAT_OPEN_EXCLUSIVE, &toy, &toy.below), 0);
  ASSERT_EQ(snbf_plat_blkdev_register(100, "toy"), 0);
  const plat_disk_params params = {"toy3", 100, 3, snbf_plat_bdev_bytes(toy.below) / 512,
                                   toy.below, 0};
  toy.disk = snbf_plat_disk_alloc(&params);
  ASSERT_EQ(snbf_plat_disk_add(toy.disk), 0);
}

void toy_stop() {
  snbf_plat_disk_del(toy.disk);
  snbf_plat_disk_put(toy.disk);
  snbf_plat_blkdev_unregister(100, "toy");
  snbf_plat_bdev_close(toy.below, PLAT_OPEN_EXCLUSIVE, kMode, &toy);
}

}  // namespace

SIM_TEST(Device, CompletesLaterAndInAnyOrder) {
  Device* disk = sim.add_device({.name = "sda"});
  std::vector<Io> ios;
  for (u64 i = 0; i < 16; ++i) {
    ios.push_back(
        sim.submit(disk->number(),
                   {.op = Op::Write, .sector = i * 8, .data = Bytes(4096, static_cast<u8>(i))}));
  }
  int behind = 0;
  for (Io& io : ios) EXPECT_EQ(io.wait(), 0);
  for (std::size_t i = 1; i < ios.size(); ++i)
    behind += ios[i].done_at_us() < ios[i - 1].done_at_us();
  EXPECT_GT(behind, 0);
  EXPECT_EQ(disk->peek(15 * 8, 4096), Bytes(4096, 15));
}

SIM_TEST(Device, ErrorsStrikeTheNthRequestAndTheRangeAskedFor) {
  Device* disk = sim.add_device({.name = "sda"});
  sim.fail_nth(Fault::DeviceWrite, 2);
  EXPECT_EQ(sim.write(disk->number(), 0, Bytes(512, 1)), 0);
  EXPECT_EQ(sim.write(disk->number(), 0, Bytes(512, 2)), -EIO);
  disk->fail_range(100, 8, Op::Read, -ENODATA);
  Bytes data;
  EXPECT_EQ(sim.read(disk->number(), 104, 512, &data), -ENODATA);
  EXPECT_EQ(sim.read(disk->number(), 108, 512, &data), 0);
  EXPECT_EQ(sim.read(disk->number(), disk->bytes() / 512, 512, &data), -EIO);
}

SIM_TEST(Device, KeepsRequestsUntilTheTestLetsThemGo) {
  Device* disk = sim.add_device({.name = "sda"});
  disk->hold(true);
  Io first = sim.submit(disk->number(), {.op = Op::Write, .sector = 0, .data = Bytes(512, 1)});
  Io second = sim.submit(disk->number(), {.op = Op::Write, .sector = 8, .data = Bytes(512, 2)});
  snbf_plat_sleep_ms(100);
  EXPECT_FALSE(first.done());
  ASSERT_EQ(disk->held().size(), 2u);
  disk->release(1);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_FALSE(first.done());
  disk->release_all();
  EXPECT_EQ(first.wait(), 0);
}

SIM_TEST(Device, HeldBackForEverIsADeadlockThatSaysSo) {
  sim.expect_fatal("1 requests are held back on 'sda' by the test");
  Device* disk = sim.add_device({.name = "sda"});
  disk->hold(true);
  sim.write(disk->number(), 0, Bytes(512, 1));
}

SIM_TEST(Plug, SendsOnlyWhenTheTaskSleepsOrUnplugs) {
  Device* disk = sim.add_device({.name = "sda"});
  {
    Sim::Plug plug(sim);
    sim.submit(disk->number(), {.op = Op::Write, .sector = 0, .data = Bytes(512, 1)});
    for (int i = 0; i < 2000; ++i) sim.point();
    EXPECT_EQ(disk->counts().in_flight, 0u);
    snbf_plat_yield();
    EXPECT_EQ(disk->counts().writes, 1u);
    sim.submit(disk->number(), {.op = Op::Write, .sector = 8, .data = Bytes(512, 1)});
    EXPECT_EQ(disk->counts().writes, 1u);
  }
  EXPECT_EQ(disk->counts().writes, 2u);
  snbf_plat_sleep_ms(5);
}

TEST(PowerCut, KeepsWhatWasFlushedAndAnySubsetOfTheRest) {
  int kept = 0, lost = 0, torn = 0;
  for (u64 seed = 1; seed <= 60; ++seed) {
    Images images;
    {
      Sim sim({.seed = seed});
      Device* disk = sim.add_device({.name = "sda"});
      EXPECT_EQ(sim.run([&] {
        EXPECT_EQ(sim.write(disk->number(), 0, Bytes(4096, 1)), 0);
        EXPECT_EQ(sim.flush(disk->number()), 0);
        EXPECT_EQ(sim.write(disk->number(), 0, Bytes(4096, 2)), 0);
        EXPECT_EQ(sim.write(disk->number(), 16, Bytes(512, 3), true), 0);
        EXPECT_EQ(disk->peek(0, 1)[0], 2);
        EXPECT_EQ(disk->durable(0, 512)[0], 1);
        sim.power_cut();
      }),
                RunEnd::PowerCut);
      images = sim.take_images();
    }
    Sim sim({.seed = seed, .images = &images});
    const Bytes page = sim.device("sda")->peek(0, 4096);
    const auto old_sectors = std::count(page.begin(), page.end(), 1) / 512;
    EXPECT_EQ(std::count(page.begin(), page.end(), 2) + old_sectors * 512, 4096);
    ++(old_sectors == 0 ? kept : old_sectors == 8 ? lost : torn);
    EXPECT_EQ(sim.device("sda")->peek(16, 512), Bytes(512, 3));
  }
  EXPECT_GT(kept, 5);
  EXPECT_GT(lost, 5);
  EXPECT_GT(torn, 5);
}

TEST(PowerCut, DoesNotCallAWriteDurableThatCompletedBehindTheFlush) {
  Sim sim({.seed = 1});
  Device* disk = sim.add_device({.name = "sda"});
  sim.run([&] {
    disk->hold(true);
    Io flush = sim.submit(disk->number(), {.op = Op::Flush});
    Io write = sim.submit(disk->number(), {.op = Op::Write, .sector = 0, .data = Bytes(512, 5)});
    disk->release(1);
    write.wait();
    disk->release(0);
    flush.wait();
    EXPECT_EQ(disk->peek(0, 512), Bytes(512, 5));
    EXPECT_EQ(disk->durable(0, 512), Bytes(512, 0));
  });
}

SIM_TEST(Node, PassesRequestsThroughTheDriver) {
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  EXPECT_EQ(sim.write(kNode, 8, Bytes(4096, 7)), 0);
  EXPECT_EQ(disk->peek(8, 4096), Bytes(4096, 7));
  Bytes data;
  EXPECT_EQ(sim.read(kNode, 8, 4096, &data), 0);
  EXPECT_EQ(data, Bytes(4096, 7));
  EXPECT_EQ(sim.discard(kNode, 8, 4096), 0);
  EXPECT_EQ(disk->peek(8, 4096), Bytes(4096, 0));
  EXPECT_EQ(sim.flush(kNode), 0);
  EXPECT_EQ(disk->counts().flushes, 1u);
  toy_stop();
  EXPECT_EQ(sim.write(kNode, 8, Bytes(512, 7)), -ENXIO);
}

SIM_TEST(Node, SeesNothingAbove4MiB) {
  Device* disk = sim.add_device({.name = "sda", .bytes = 64 << 20});
  toy_start(sim, disk->number());
  Bytes data(9 << 20);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<u8>(i / 4096 * 7);
  Request request{.op = Op::Write, .sector = 8, .data = data, .first_piece_offset = 512};
  EXPECT_EQ(sim.submit(kNode, request).wait(), 0);
  EXPECT_EQ(toy.requests, 3);
  EXPECT_EQ(toy.largest, 4u << 20);
  Bytes back;
  EXPECT_EQ(sim.read(kNode, 8, 9 << 20, &back), 0);
  EXPECT_EQ(back, data);
  EXPECT_EQ(sim.discard(kNode, 0, 33 << 20), 0);
  EXPECT_EQ(toy.requests, 3 + 3 + 9);
  toy_stop();
}

SIM_TEST(Node, SendsWhatItsDriverSubmitsOnlyWhenTheDriverHasReturned) {
  Device* disk = sim.add_device({.name = "sda", .bio_based = true});
  toy_start(sim, disk->number());
  toy.on_request = [&](plat_bio* bio) {
    snbf_plat_bio_forward(bio, toy.below);
    EXPECT_EQ(disk->counts().in_flight, 0u);
  };
  EXPECT_EQ(sim.write(kNode, 8, Bytes(512, 7)), 0);
  toy_stop();
}

SIM_TEST(Node, WhatItPassesOnInPlaceIsInTheQueueOfADeviceThatCanBeDrained) {
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  EXPECT_EQ(snbf_plat_bdev_can_drain(toy.below), 1);
  disk->hold(true);
  toy.on_request = [&](plat_bio* bio) {
    snbf_plat_bio_forward(bio, toy.below);
    EXPECT_EQ(disk->counts().in_flight, 1u);
  };
  Io io = sim.submit(kNode, {.op = Op::Write, .sector = 8, .data = Bytes(512, 7)});
  EXPECT_EQ(snbf_plat_bdev_drain(toy.below, 100), -ETIMEDOUT);
  disk->release_all();
  EXPECT_EQ(snbf_plat_bdev_drain(toy.below, 100), 0);
  EXPECT_TRUE(io.done());
  disk->hold(false);
  toy_stop();
}

SIM_TEST(Node, WhoWaitsInsideForItsOwnSubmissionIsDeadlocked) {
  sim.expect_fatal("inside a submit function with 1 requests that wait for its return");
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  toy.on_request = [&](plat_bio*) {
    sim.write(toy.below == nullptr ? 0 : disk->number(), 0, Bytes(512, 1));
  };
  sim.write(kNode, 8, Bytes(512, 7));
}

SIM_TEST(Node, DeletionWaitsForTheOpenerInsideTheDriver) {
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  bool opened = false;
  toy.on_open = [&] {
    snbf_plat_sleep_ms(5);
    opened = true;
  };
  Task* opener = sim.spawn("opener", [&] {
    OpenNode node;
    if (sim.open_node(kNode, kMode, &node) == 0) sim.close_node(&node);
  });
  snbf_plat_sleep_ms(1);
  snbf_plat_disk_del(toy.disk);
  EXPECT_TRUE(opened);
  sim.join(opener);
  snbf_plat_disk_put(toy.disk);
  snbf_plat_blkdev_unregister(100, "toy");
  snbf_plat_bdev_close(toy.below, PLAT_OPEN_EXCLUSIVE, kMode, &toy);
}

SIM_TEST(Node, DeletedUnderALockThatItsOpenerWaitsForIsADeadlock) {
  sim.expect_fatal("waits for the mutex 'the open mutex of toy3', held by 'opener'");
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  plat_semaphore table;
  snbf_plat_sem_init(&table, 1);
  toy.on_open = [&] { snbf_plat_sem_down(&table); };
  snbf_plat_sem_down(&table);
  sim.spawn("opener", [&] {
    OpenNode node;
    sim.open_node(kNode, kMode, &node);
  });
  snbf_plat_sleep_ms(1);
  snbf_plat_disk_del(toy.disk);
}

SIM_TEST(Node, DeletionWaitsForRequestsInsideTheDriver) {
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  bool left = false;
  toy.on_request = [&](plat_bio* bio) {
    snbf_plat_sleep_ms(5);
    left = true;
    snbf_plat_bio_complete(bio, -EIO);
  };
  Task* writer = sim.spawn("writer", [&] { sim.write(kNode, 0, Bytes(512, 1)); });
  snbf_plat_sleep_ms(1);
  toy_stop();
  EXPECT_TRUE(left);
  sim.join(writer);
}

SIM_TEST(Node, FreedWithARequestInItsDriverEndsTheRun) {
  sim.expect_fatal("with 1 requests that the driver has not completed");
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  toy.on_request = [](plat_bio*) {};
  sim.submit(kNode, {.op = Op::Write, .sector = 0, .data = Bytes(512, 1)});
  toy_stop();
}

SIM_TEST(Request, CompletedTwiceEndsTheRun) {
  sim.expect_fatal("which is gone");
  plat_bio* bio = sim.make_bio(Op::Write, 0, 4096);
  snbf_plat_bio_complete(bio, 0);
  snbf_plat_bio_complete(bio, 0);
}

SIM_TEST(Request, CompletedWhileItsCloneIsInFlightEndsTheRun) {
  sim.expect_fatal("is completed while its clone");
  Device* disk = sim.add_device({.name = "sda"});
  plat_bdev* bdev = nullptr;
  snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev);
  plat_bio* bio = sim.make_bio(Op::Write, 0, 4096);
  disk->hold(true);
  snbf_plat_bio_submit(snbf_plat_bio_clone(bio, PLAT_ALLOC_NOIO), bdev);
  snbf_plat_bio_complete(bio, 0);
}

SIM_TEST(Request, PutInFlightEndsTheRun) {
  sim.expect_fatal("bio_put() of a request in flight");
  Device* disk = sim.add_device({.name = "sda"});
  plat_bdev* bdev = nullptr;
  snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev);
  plat_bio* bio = snbf_plat_bio_alloc(PLAT_ALLOC_NOIO);
  snbf_plat_bio_set_page(bio, 0, 0, snbf_plat_page_alloc(PLAT_ALLOC_NOIO), 4096);
  snbf_plat_bio_submit(bio, bdev);
  snbf_plat_bio_put(bio);
}

SIM_TEST(Request, WhosePageIsFreedInFlightEndsTheRun) {
  sim.expect_fatal("uses a freed page");
  Device* disk = sim.add_device({.name = "sda"});
  plat_bdev* bdev = nullptr;
  snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev);
  plat_bio* bio = snbf_plat_bio_alloc(PLAT_ALLOC_NOIO);
  void* page = snbf_plat_page_alloc(PLAT_ALLOC_NOIO);
  snbf_plat_bio_set_page(bio, 1, 0, page, 4096);
  disk->hold(true);
  snbf_plat_bio_submit(bio, bdev);
  snbf_plat_page_free(page);
  disk->release_all();
  snbf_plat_sleep_ms(5);
}

SIM_TEST(Bdev, UsedAfterItsCloseEndsTheRun) {
  sim.expect_fatal("of a device that was closed");
  Device* disk = sim.add_device({.name = "sda"});
  plat_bdev* bdev = nullptr;
  snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev);
  snbf_plat_bdev_close(bdev, PLAT_OPEN_SHARED, kMode, nullptr);
  snbf_plat_bdev_bytes(bdev);
}

SIM_TEST(InPlace, EndsBeforeTheSubmissionReturns) {
  Device* disk = sim.add_device({.name = "ram", .in_place_percent = 100});
  const Io io = sim.submit(disk->number(), {.op = Op::Write, .sector = 0, .data = Bytes(512, 7)});
  EXPECT_TRUE(io.done());
  EXPECT_EQ(io.error(), 0);
  EXPECT_EQ(disk->counts().in_place, 1u);
  disk->fail_range(0, 8, Op::Write, -EIO);
  const Io refused =
      sim.submit(disk->number(), {.op = Op::Write, .sector = 0, .data = Bytes(512, 8)});
  EXPECT_TRUE(refused.done());
  EXPECT_EQ(refused.error(), -EIO);
  EXPECT_EQ(disk->counts().refused, 1u);
  EXPECT_EQ(disk->peek(0, 512), Bytes(512, 7));
}

SIM_TEST(Torn, AWriteThatFailsLeavesOldOrNewInEachSector) {
  Device* disk = sim.add_device({.name = "sda", .tears = true});
  ASSERT_EQ(sim.write(disk->number(), 0, Bytes(8 * 512, 1)), 0);
  disk->fail_range(0, 8, Op::Write, -EIO);
  EXPECT_EQ(sim.write(disk->number(), 0, Bytes(8 * 512, 2)), -EIO);
  for (u64 sector = 0; sector < 8; ++sector) {
    const Bytes now = disk->peek(sector, 512);
    EXPECT_TRUE(now == Bytes(512, 1) || now == Bytes(512, 2));
  }
}

SIM_TEST(Bdev, ExclusiveKeepsOtherHoldersAndMountsOut) {
  Device* disk = sim.add_device({.name = "sda"});
  FileSystem* fs = sim.add_fs("a", disk->number());
  int me = 0, other = 0;
  plat_bdev *bdev = nullptr, *second = nullptr;
  ASSERT_EQ(snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_EXCLUSIVE, &me, &bdev), 0);
  EXPECT_EQ(snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_EXCLUSIVE, &other, &second),
            -EBUSY);
  EXPECT_EQ(sim.mount(fs, "/mnt/a"), -EBUSY);
  EXPECT_EQ(snbf_plat_bdev_openers(bdev), 1);
  snbf_plat_bdev_close(bdev, PLAT_OPEN_EXCLUSIVE, kMode, &me);
  EXPECT_EQ(sim.mount(fs, "/mnt/a"), 0);
  ASSERT_EQ(snbf_plat_bdev_open(disk->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev), 0);
  EXPECT_EQ(snbf_plat_bdev_is_mounted(bdev), 1);
  EXPECT_EQ(snbf_plat_bdev_openers(bdev), 2);
  snbf_plat_bdev_close(bdev, PLAT_OPEN_SHARED, kMode, nullptr);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Reclaim, ThroughANodeFromInsideItsDriverIsADeadlockUnlessNothingStartsIo) {
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  sim.set_reclaim(kNode, 64, 100);
  void* memory = snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
  snbf_plat_heap_free(memory);
  EXPECT_EQ(toy.requests, 1);
  toy.on_request = [](plat_bio* bio) {
    snbf_plat_heap_free(snbf_plat_heap_alloc(8, PLAT_ALLOC_NOIO));
    const unsigned state = snbf_plat_noio_begin();
    snbf_plat_heap_free(snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL));
    snbf_plat_noio_end(state);
    snbf_plat_bio_forward(bio, toy.below);
  };
  EXPECT_EQ(sim.write(kNode, 0, Bytes(512, 1)), 0);
  EXPECT_EQ(toy.requests, 2);
  sim.clear_reclaim();
  toy_stop();
}

SIM_TEST(Reclaim, UnderALockThatWritesNeedIsADeadlock) {
  sim.expect_fatal("deadlock");
  Device* disk = sim.add_device({.name = "sda"});
  toy_start(sim, disk->number());
  plat_semaphore table;
  snbf_plat_sem_init(&table, 1);
  toy.on_request = [&](plat_bio* bio) {
    snbf_plat_sem_down(&table);
    snbf_plat_sem_up(&table);
    snbf_plat_bio_forward(bio, toy.below);
  };
  sim.set_reclaim(kNode, 64, 100);
  snbf_plat_sem_down(&table);
  snbf_plat_heap_alloc(8, PLAT_ALLOC_NORMAL);
}

namespace {

plat_semaphore* proc_lock;

int slow_read(char* page, char**, plat_s64, int, int* eof, void*) {
  snbf_plat_sem_down(proc_lock);
  snbf_plat_sem_up(proc_lock);
  *eof = 1;
  memcpy(page, "text\n", 5);
  return 5;
}

}  // namespace

SIM_TEST(Proc, RemovalWaitsForTheReaderInside) {
  Entries entries;
  entries.read_proc = slow_read;
  sim.set_entries(entries);
  plat_semaphore lock;
  snbf_plat_sem_init(&lock, 1);
  proc_lock = &lock;
  plat_proc_entry* entry = snbf_plat_proc_create("one", 0444, nullptr, 0, &lock);
  EXPECT_EQ(sim.proc("/proc/one"), "text\n");
  snbf_plat_sem_down(&lock);
  Task* reader = sim.spawn("reader", [&] { sim.proc("one"); });
  snbf_plat_sleep_ms(1);
  sim.interrupt([&] { snbf_plat_sem_up(&lock); }, 500);
  const u64 before = sim.now_us();
  snbf_plat_proc_remove(entry);
  EXPECT_GE(sim.now_us(), before + 400);
  sim.join(reader);
  EXPECT_EQ(sim.proc("one"), "<error -2>");
}

SIM_TEST(Proc, RemovedUnderALockThatItsReaderWaitsForIsADeadlock) {
  sim.expect_fatal("waits for the readers inside of /proc entry 'one'");
  Entries entries;
  entries.read_proc = slow_read;
  sim.set_entries(entries);
  plat_semaphore lock;
  snbf_plat_sem_init(&lock, 1);
  proc_lock = &lock;
  plat_proc_entry* entry = snbf_plat_proc_create("one", 0444, nullptr, 0, &lock);
  snbf_plat_sem_down(&lock);
  sim.spawn("reader", [&] { sim.proc("one"); });
  snbf_plat_sleep_ms(1);
  snbf_plat_proc_remove(entry);
}
