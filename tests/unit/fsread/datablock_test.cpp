// The commands about data-block maps, through the control device.
#include "byte_image.h"
#include "fsread/blkbmp.h"
#include "fsread/selftest.h"
#include "snap/snapstart.h"
#include "snap_bench.h"

namespace snbf::sim {
namespace {

constexpr u32 kChunkBytes = 4096;
constexpr u64 kDeviceBytes = 16 << 20;  // as the rig's partition

// A filter node 3 over an ext2 file system, with a snap 4 hung on it by hand.
struct Machine {
  explicit Machine(Sim& kernel) : sim(kernel) {
    load_with_partition(sim, {.debug = 2});
    sim.device("sda1")->poke(0, layout.bytes());
    EXPECT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
    snap = hang_snap(filter_at(3), 4);
    snap->chunk_size = kChunkBytes;
    snap->chunk_shift = 12;
    snap->chunk_cnt = kDeviceBytes / kChunkBytes;
    snap->started.store(1);
  }
  ~Machine() {
    snbf_blkbmp_destroy(&snap->blkbmp);
    snap->started.store(0);
    EXPECT_EQ(sim.unload_driver(), 0);
  }
  void build_map() {
    plat_bdev* bdev = nullptr;
    const plat_devt device = sim.device("sda1")->number();
    ASSERT_EQ(snbf_plat_bdev_open(device, PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr, &bdev), 0);
    EXPECT_EQ(snbf_blkbmp_read(&snap->blkbmp, bdev, kChunkBytes), 0);
    snbf_plat_bdev_close(bdev, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr);
  }
  int get(u32 minor, u32 extent_size, u32 size, u64 data, u32* size_back = nullptr) {
    snbf_datablock_cmd record = {minor, extent_size, size, 0, data};
    sim.log().clear();
    const int rc = sim.ioctl(SNBF_GET_DATABLOCK_BMP, &record, sizeof(record));
    if (size_back != nullptr) *size_back = record.size;
    return rc;
  }

  Sim& sim;
  const Ext2Image layout = {.blocks_count = kDeviceBytes >> 10, .used = {7777, 16383}};
  SnapNode* snap = nullptr;
};

constexpr const char* kGet = "snbf_ioctl_get_datablock_bmp(): ";

SIM_TEST(GetDatablocks, AnswersTheMap) {
  Machine machine(sim);
  machine.build_map();
  UserBuffer data = sim.user(Bytes(600, 0xA5));
  u32 size = 0;
  ASSERT_EQ(machine.get(4, kChunkBytes, 600, data.address(), &size), 0);
  EXPECT_EQ(sim.log().count(std::string(kGet) + "Returning datablock bitmap of snbf(100, 4)", 6),
            1);
  EXPECT_EQ(size, 512u);
  EXPECT_EQ(set_bits(data.bytes(), 4096), (std::set<u64>{0, 7777 / 4, 4095}));
  EXPECT_EQ(data.bytes()[512], 0xA5);
  ASSERT_EQ(machine.get(4, kChunkBytes * 4, 128, data.address(), &size), 0);
  EXPECT_EQ(size, 128u);
  EXPECT_EQ(set_bits(data.bytes(), 1024), (std::set<u64>{0, 7777 / 16, 1023}));
  ASSERT_EQ(machine.get(4, 1u << 31, 1, data.address(), &size), 0);
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(data.bytes()[0], 1);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(GetDatablocks, EveryBitIsSetWhileThereIsNoMap) {
  Machine machine(sim);
  UserBuffer data = sim.user(Bytes(600, 0));
  u32 size = 0;
  ASSERT_EQ(machine.get(4, kChunkBytes, 512, data.address(), &size), 0);
  EXPECT_EQ(size, 512u);
  EXPECT_EQ(set_bits(data.bytes(), 600 * 8).size(), 4096u);
  ASSERT_EQ(machine.get(4, 65536, 600, data.address(), &size), 0);
  EXPECT_EQ(size, 32u);
}

SIM_TEST(GetDatablocks, RefusesInItsOrder) {
  Machine machine(sim);
  machine.build_map();
  UserBuffer data = sim.user(u64{512});
  auto refuses = [&](int rc, int expected, const std::string& line) {
    EXPECT_EQ(rc, expected);
    EXPECT_EQ(sim.log().count(kGet + line, 3), 1) << sim.log().dump();
    EXPECT_EQ(sim.log().errors(), 1);
  };
  EXPECT_EQ(machine.get(5, 1, 0, 0), -EINVAL);
  EXPECT_TRUE(sim.log().contains("Invalid SNBF minor=5"));
  refuses(machine.get(3, 1, 0, 0), -EINVAL, "snbf(100, 3) is not a snap device");
  machine.snap->started.store(0);
  refuses(machine.get(4, 1, 0, 0), -EINVAL, "Snap device snbf(100, 4) has not been started yet");
  machine.snap->started.store(1);
  refuses(machine.get(4, 1, 0, 0), -EINVAL, "NULL bitmap data pointer passed as input");
  for (u32 extent : {0u, 1u, 4097u, 0xFFFFFFFFu}) {
    refuses(machine.get(4, extent, 0, data.address()), -EINVAL,
            "Extent size (" + std::to_string(static_cast<int>(extent)) +
                ") must have been a power of 2.");
  }
  refuses(machine.get(4, 2048, 0, data.address()), -EINVAL,
          "Extent size (2048) must be bigger than chunk size (4096).");
  refuses(machine.get(4, 4096, 511, data.address()), -EINVAL,
          "Bitmap buffer is not large enough: should be 512B instead of 511B.");
  sim.fail_nth(Fault::Virt, 1);
  refuses(machine.get(4, 4096, 512, data.address()), -ENOMEM,
          "Failed to allocated 512 bytes of memory");
  data.fault_at(100);
  u32 size = 0;
  refuses(machine.get(4, 4096, 512, data.address(), &size), -EFAULT,
          "Failed to copyout the bitmap");
  EXPECT_EQ(size, 512u);
}

// The map that a stop destroys is not being exported.
SIM_TEST_SEEDS(GetDatablocks, AStopWaitsForIt, 40) {
  Machine machine(sim);
  machine.build_map();
  UserBuffer data = sim.user(u64{512});
  sim.spawn("stop", [&] {
    sim.sleep_us(sim.random(50));
    KsReadGuard table{snbf_blkdev_rwlock};
    KsMutexGuard hold{machine.snap->node_mutex};
    machine.snap->started.store(0);
    snbf_blkbmp_destroy(&machine.snap->blkbmp);
  });
  for (int n = 0; n < 20; ++n) {
    const int rc = machine.get(4, kChunkBytes, 512, data.address());
    if (rc != 0) {
      EXPECT_EQ(rc, -EINVAL);
    } else {
      EXPECT_EQ(set_bits(data.bytes(), 4096), (std::set<u64>{0, 7777 / 4, 4095}));
    }
  }
  sim.join_all();
}

// Behind a stop and another start, two may come to build the same map.
SIM_TEST(SnapsMap, IsBuiltFromTheBeginningAfterAFailure) {
  SnapBench bench(sim);
  const Ext2Image layout = {.block_size = 4096, .blocks_count = 256, .first_data_block = 0};
  bench.disk->poke(0, layout.bytes());
  bench.disk->fail_range(layout.bitmap_block(0) * 8, 8, Op::Read, -EIO);
  bench.add_started(7);
  const snbf_blkbmp& map = bench.snap(7)->blkbmp;
  EXPECT_EQ(map.valid, 0);
  bench.disk->clear_failures();
  read_block_map(*bench.snap(7));
  EXPECT_EQ(map.valid, 1);
  EXPECT_EQ(snbf_blkbmp_is_used(&map, 200), 0);
}

int test_datablock(Sim& sim, const std::string& path) {
  snbf_datablock_test record = {};
  std::memcpy(record.path, path.data(), std::min(path.size(), sizeof(record.path)));
  return sim.ioctl(SNBF_TEST_DATABLOCK, &record, sizeof(record));
}

SIM_TEST(TestDatablock, ChecksTheDevice) {
  load_with_partition(sim, {.debug = 2});
  sim.make_dir("/tmp");
  sim.device("sda1")->poke(
      0, Ext2Image{.blocks_count = 16384, .used = {100, 101, 9000, 16383}}.bytes());
  EXPECT_EQ(test_datablock(sim, "/dev/sda1"), 0);
  for (const char* line :
       {"snbf_ioctl_test_datablock(): Testing datablocks on /dev/sda1",
        "snbf_ioctl_test_datablock(): Successfully derived HDD major=8, minor=",
        "snbf_blkbmp_test(): Testing datablock bitmap code for hdd(8, ",
        "snbf_blkbmp_test(): Datablock bitmap code tests completed successfully"}) {
    EXPECT_EQ(sim.log().count(line, 6), 1) << line;
  }
  EXPECT_FALSE(sim.log().has_errors());
  // 16 portions of 61 chunks of 2048 bytes; the first has the front, block 1 and block 100.
  Bytes portions;
  ASSERT_EQ(sim.read_file("/tmp/bmp.2048.61", &portions), 0);
  ASSERT_EQ(portions.size(), 128u);
  EXPECT_EQ(set_bits(portions, 64), (std::set<u64>{0, 50}));
  EXPECT_EQ(set_bits(Bytes(portions.begin() + 120, portions.end()), 64), (std::set<u64>{60}));
  EXPECT_TRUE(sim.exists("/tmp/bmp.1024.1024"));
  EXPECT_TRUE(sim.exists("/tmp/bmp.8388608.1"));
  EXPECT_FALSE(sim.exists("/tmp/bmp.33554432.1"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(TestDatablock, RefusesWhatItCannotTest) {
  load_with_partition(sim, {.debug = 2});
  const char* origin = "snbf_ioctl_test_datablock(): ";
  auto refuses = [&](const std::string& path, int expected, const std::string& line) {
    sim.log().clear();
    EXPECT_EQ(test_datablock(sim, path), expected);
    EXPECT_EQ(sim.log().count(origin + line, 3), 1) << sim.log().dump();
  };
  refuses("", -EINVAL, "Empty HDD name passed as input.");
  refuses("/dev/none", -ENOENT, "Unable to lookup /dev/none: rc=-2");
  refuses("relative", -ENOENT, "Unable to lookup relative: rc=-22");
  refuses("/var/bmp", -EINVAL, "/var/bmp is not a block device.");
  refuses("/" + std::string(2000, 'x'), -ENOENT, "Unable to lookup /xxx");
  ASSERT_EQ(sim.make_node_file("/dev/gone", PLAT_S_IFBLK | 0600, dev(9, 9)), 0);
  refuses("/dev/gone", -EIO, "Failed to open /dev/gone");
  ASSERT_EQ(sim.mount(sim.add_fs("data", sim.device("sda1")->number()), "/var"), 0);
  refuses("/dev/sda1", -EBUSY, "Can't test mounted HDD device /dev/sda1");
  ASSERT_EQ(sim.unmount(sim.fs("data")), 0);
  EXPECT_EQ(sim.device("sda1")->openers(), 0);
  EXPECT_EQ(test_datablock(sim, "/dev/sda1"), -EINVAL);
  EXPECT_TRUE(sim.log().contains("snbf_blkbmp_test(): Cannot recognize file system on hdd(8, "));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(SelfTest, GoesOnWithoutAPlaceForItsFiles) {
  LoggedParts parts;
  sim.fail_always(Fault::FileOpen);
  ImageOnDevice image(sim, Ext2Image{.used = {5, 6, 7}});
  EXPECT_EQ(snbf_blkbmp_test(image.bdev()), 0);
  EXPECT_TRUE(sim.log().contains("Failed to open file /tmp/bmp.1024.1 for writing"));
}

// Anybody may have put the names there.
SIM_TEST(SelfTest, WritesThroughNobodysLink) {
  LoggedParts parts;
  sim.make_dir("/tmp");
  const Bytes secret(100, 's');
  ASSERT_EQ(sim.write_file("/etc/secret", secret, true), 0);
  ASSERT_EQ(sim.make_symlink("/etc/secret", "/tmp/bmp.1024.1"), 0);
  ASSERT_EQ(sim.make_symlink("/etc/new", "/tmp/bmp.1024.8"), 0);
  ASSERT_EQ(sim.write_file("/tmp/bmp.1024.61", secret, true), 0);
  ImageOnDevice image(sim, Ext2Image{.used = {5, 6, 7}});
  for (int run = 0; run < 2; ++run) {
    EXPECT_EQ(snbf_blkbmp_test(image.bdev()), 0);
    Bytes found;
    ASSERT_EQ(sim.read_file("/etc/secret", &found), 0);
    EXPECT_EQ(found, secret);
    EXPECT_FALSE(sim.exists("/etc/new"));
    for (const auto& [name, bytes] : {std::pair{"1", 1u}, {"8", 1u}, {"61", 8u}}) {
      ASSERT_EQ(sim.read_file(std::string("/tmp/bmp.1024.") + name, &found), 0);
      EXPECT_EQ(found.size(), 16 * bytes) << name;
    }
    EXPECT_FALSE(sim.log().has_errors());
  }
}

SIM_TEST_SEEDS(SelfTest, EveryAllocationMayFail, 1) {
  LoggedParts parts(2);
  sim.make_dir("/tmp");
  ImageOnDevice image(sim, Ext2Image{.blocks_count = 100, .used = {5, 6, 7}});
  int failed = 0;
  for (int nth = 1; fails_at(sim, Fault::Virt, nth,
                             [&] {
                               sim.log().clear();
                               const int rc = snbf_blkbmp_test(image.bdev());
                               if (rc == 0) return;
                               ++failed;
                               EXPECT_TRUE(sim.log().contains("(): Memory allocation failed"));
                             });
       ++nth) {
  }
  EXPECT_GT(failed, 12);
}

// Contents that change between two readings are a disagreement that must be found.
SIM_TEST_SEEDS(SelfTest, FindsADisagreement, 1) {
  LoggedParts parts(2);
  sim.make_dir("/tmp");
  // As many in each group, so that the groups' descriptors agree with both.
  const Ext2Image one = {.blocks_count = 3 * 8192 + 1, .used = {5, 6, 12000}};
  const Ext2Image other = {.blocks_count = 3 * 8192 + 1, .used = {5, 6, 12001}};
  std::map<std::string, int> lines = {
      {"is misrepresented by blkbmp: 1 instead of 0", 0},
      {"is misrepresented by blkbmp: 0 instead of 1", 0},
      {"of chunk bitmap is clear, but some bits in the block bitmap are set.", 0},
      {"of chunk bitmap is set, but all bits in the block bitmap are clear.", 0},
      {"snbf_blkbmp_test(): Bitmap inconsistency for chunk 12000: expected 1, got 0", 0},
      {"snbf_blkbmp_test(): Bitmap inconsistency for chunk 12000: expected 0, got 1", 0}};
  for (std::size_t reads = 4; reads < 30; ++reads) {
    for (bool turned : {true, false}) {
      sim.log().clear();
      const std::string name = "sd" + std::to_string(reads) + (turned ? "t" : "n");
      ImageOnDevice image(sim, (turned ? other : one).bytes(), one.device_bytes(), name);
      sim.spawn("writer", [&] {
        sim.wait_until([&] { return image.disk.device->history().size() >= reads; });
        image.disk.device->poke(0, (turned ? one : other).bytes());
      });
      const int rc = snbf_blkbmp_test(image.bdev());
      sim.join_all();
      for (auto& [line, count] : lines) {
        if (!sim.log().contains(line)) continue;
        EXPECT_EQ(rc, -EINVAL);
        EXPECT_FALSE(sim.log().contains("completed successfully"));
        ++count;
      }
    }
  }
  for (auto& [line, count] : lines) EXPECT_GT(count, 0) << line;
}

}  // namespace
}  // namespace snbf::sim
