#include "control/proc.h"

#include <string>
#include <vector>

#include "core/log.h"
#include "driver_rig.h"

namespace snbf::sim {
namespace {

using Names = std::vector<std::string>;

const Names kFilterFiles = {"dev_type",       "minor",         "uuid",           "name",
                            "dev_name",       "started",       "use_cnt",        "hdd_major",
                            "hdd_minor",      "hdd_name",      "snap_minor",     "extent_size",
                            "extent_cnt",     "dev_size",      "bmp_dir",        "incr_bmp_size",
                            "incr_bmp_dirty", "diff_bmp_size", "diff_bmp_dirty", "cowqueue_len",
                            "snaps"};
const Names kSnapFiles = {"dev_type",     "minor",         "uuid",          "name",
                          "dev_name",     "started",       "stop_pending",  "del_pending",
                          "use_cnt",      "filter_minor",  "hdd_major",     "hdd_minor",
                          "hdd_name",     "chunk_size",    "cow_bmp_fname", "cow_data_fname",
                          "cow_bmp_size", "cow_data_size", "snap_valid"};

Names sorted(Names names) {
  std::sort(names.begin(), names.end());
  return names;
}

SIM_TEST(Proc, ShowsTheParametersOfTheDriver) {
  ASSERT_EQ(sim.load_driver({.chr_major = 98, .debug = 2, .blk_major = 99}), 0);
  EXPECT_EQ(sorted(sim.list_proc("/proc/snbf")), (Names{"blk_major", "chr_major", "debug"}));
  EXPECT_EQ(sim.proc("/proc/snbf/chr_major"), "98\n");
  EXPECT_EQ(sim.proc("/proc/snbf/blk_major"), "99\n");
  sim.log().clear();
  EXPECT_EQ(sim.proc("/proc/snbf/debug"), "2\n");
  EXPECT_TRUE(sim.log().contains("snbf_read_proc(): debug=2"));
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, ShowsEveryFieldOfAFilterNode) {
  load_with_partition(sim, {.debug = 1});
  snbf_filter_node_cmd record = filter_record("/dev/sda1", 3);
  std::strcpy(record.name, "root volume");
  ASSERT_EQ(add_filter(sim, record), 0);
  ASSERT_EQ(start_node(sim, 3), 0);
  const plat_devt hdd = sim.device("sda1")->number();
  EXPECT_EQ(sorted(sim.list_proc("/proc/snbf/snbf3")), sorted(kFilterFiles));
  const auto field = [&](const char* name) {
    return sim.proc(std::string("/proc/snbf/snbf3/") + name);
  };
  EXPECT_EQ(field("dev_type"), "filter\n");
  EXPECT_EQ(field("minor"), "3\n");
  EXPECT_EQ(field("uuid"), std::string(record.uuid) + "\n");
  EXPECT_EQ(field("name"), "root volume\n");
  EXPECT_EQ(field("dev_name"), "/dev/snbf/snbf3\n");
  EXPECT_EQ(field("started"), "1\n");
  EXPECT_EQ(field("use_cnt"), "0\n");
  EXPECT_EQ(field("hdd_major"), std::to_string(hdd >> 20) + "\n");
  EXPECT_EQ(field("hdd_minor"), std::to_string(hdd & 0xfffff) + "\n");
  EXPECT_EQ(field("hdd_name"), "/dev/sda1\n");
  EXPECT_EQ(field("snap_minor"), "");
  EXPECT_EQ(field("extent_size"), "65536\n");
  EXPECT_EQ(field("extent_cnt"), "256\n");
  EXPECT_EQ(field("dev_size"), "16777216\n");
  EXPECT_EQ(field("bmp_dir"), "/var/bmp\n");
  EXPECT_EQ(field("incr_bmp_size"), "32\n");
  EXPECT_EQ(field("incr_bmp_dirty"), "1\n");
  EXPECT_EQ(field("diff_bmp_size"), "32\n");
  EXPECT_EQ(field("diff_bmp_dirty"), "1\n");
  EXPECT_EQ(field("cowqueue_len"), "0\n");
  EXPECT_EQ(field("snaps"), "");
  OpenNode node;
  ASSERT_EQ(sim.open_node(kNode(3), PLAT_MODE_READ, &node), 0);
  EXPECT_EQ(field("use_cnt"), "1\n");
  ASSERT_EQ(sim.close_node(&node), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, ListsTheSnapsOldestFirst) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 0), 0);
  hang_snap(filter_at(0), 5);
  hang_snap(filter_at(0), 3);
  EXPECT_EQ(sim.proc("/proc/snbf/snbf0/snaps"), "5\n3\n");
  EXPECT_EQ(sim.proc("/proc/snbf/snbf0/snap_minor"), "5\n3\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, ShowsEveryFieldOfASnap) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 7), 0);
  SnapNode* snap = hang_snap(filter_at(7), 5);
  std::strcpy(snap->name, "monday");
  snap->chunk_size = 8192;
  std::strcpy(snap->cow_bmp_fname, "/cow/5.bmp");
  std::strcpy(snap->cow_data_fname, "/cow/5.data");
  snap->cow_bmp_size = 0xfffffff0u;
  snap->cow_data_size = 1ull << 40;
  snap->snap_valid.store(1);
  snap->stop_pending.store(1);
  {
    KsMutexGuard life{lifecycle_mutex};
    ASSERT_EQ(snbf_proc_add_device(*snap), 0);
  }
  EXPECT_EQ(sorted(sim.list_proc("/proc/snbf/snbf5")), sorted(kSnapFiles));
  const auto field = [&](const char* name) {
    return sim.proc(std::string("/proc/snbf/snbf5/") + name);
  };
  EXPECT_EQ(field("dev_type"), "snap\n");
  EXPECT_EQ(field("minor"), "5\n");
  EXPECT_EQ(field("name"), "monday\n");
  EXPECT_EQ(field("dev_name"), "\n");
  EXPECT_EQ(field("started"), "0\n");
  EXPECT_EQ(field("stop_pending"), "1\n");
  EXPECT_EQ(field("del_pending"), "0\n");
  EXPECT_EQ(field("filter_minor"), "7\n");
  EXPECT_EQ(field("hdd_name"), "/dev/sda1\n");
  EXPECT_EQ(field("chunk_size"), "8192\n");
  EXPECT_EQ(field("cow_bmp_fname"), "/cow/5.bmp\n");
  EXPECT_EQ(field("cow_data_fname"), "/cow/5.data\n");
  EXPECT_EQ(field("cow_bmp_size"), "4294967280\n");
  EXPECT_EQ(field("cow_data_size"), "1099511627776\n");
  EXPECT_EQ(field("snap_valid"), "1\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, AFileOfANodeThatIsGoneIsEmpty) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  Node* const node = snbf_blkdev_arr[3];
  snbf_blkdev_arr[3] = nullptr;
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/minor"), "");
  snbf_blkdev_arr[3] = node;
  EXPECT_EQ(sim.proc("/proc/snbf/snbf3/minor"), "3\n");
  ASSERT_EQ(sim.unload_driver(), 0);
}

// What a file is, it learns from its own name and its parent's.
std::string text_of(const char* parent_name, const char* name) {
  ProcEntry root;
  ProcEntry parent;
  ProcEntry entry;
  text_copy(parent.name, sizeof(parent.name), parent_name);
  text_copy(entry.name, sizeof(entry.name), name);
  parent.parent = &root;
  entry.parent = &parent;
  static char page[4096];
  char* start = nullptr;
  int eof = 0;
  const int length = snbf_read_proc(page, &start, 0, 4096, &eof, &entry);
  EXPECT_EQ(eof, 1);
  EXPECT_EQ(start, nullptr);
  EXPECT_EQ(length, static_cast<int>(std::strlen(page)));
  return page;
}

SIM_TEST(Proc, OddNamesReadAsEmptyFiles) {
  load_with_partition(sim, {.debug = 1});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  EXPECT_EQ(text_of("snbf3", "minor"), "3\n");
  EXPECT_EQ(text_of("snbf3", "chunk_size"), "");
  EXPECT_EQ(text_of("snbf3", "nonsense"), "");
  EXPECT_EQ(text_of("snbf3x", "minor"), "3\n");
  for (const char* parent : {"snbf", "snb3", "snbfx3", "snbf-1", "snbf256", "snbf4", "Snbf3",
                             "snbf99999999999999999999"}) {
    EXPECT_EQ(text_of(parent, "minor"), "") << parent;
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, ReadRefusesNullPointers) {
  ASSERT_EQ(sim.load_driver(), 0);
  static char page[4096];
  int eof = 0;
  ProcEntry entry;
  EXPECT_EQ(snbf_read_proc(nullptr, nullptr, 0, 1, &eof, &entry), -EINVAL);
  EXPECT_EQ(snbf_read_proc(page, nullptr, 0, 1, nullptr, &entry), -EINVAL);
  EXPECT_EQ(snbf_read_proc(page, nullptr, 0, 1, &eof, nullptr), -EINVAL);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ProcDebug, TakesANewLevel) {
  ASSERT_EQ(sim.load_driver({.debug = 2}), 0);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "3\n"), 0);
  EXPECT_EQ(snbf_debug, 3);
  EXPECT_TRUE(sim.log().contains("snbf_write_proc(): snbf_debug=3"));
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "4 and more"), 0);
  EXPECT_EQ(snbf_debug, 4);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", std::string_view("0\0", 2)), 0);
  EXPECT_EQ(snbf_debug, 0);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "-1\n"), 0);
  EXPECT_EQ(snbf_debug, -1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ProcDebug, RefusesWhatIsNoNumber) {
  ASSERT_EQ(sim.load_driver(), 0);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "3x\n"), -EINVAL);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "x\n"), -EINVAL);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "0x3\n"), -EINVAL);
  EXPECT_EQ(snbf_debug, 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ProcDebug, TakesAtMost1024Bytes) {
  ASSERT_EQ(sim.load_driver(), 0);
  std::string text = "3\n" + std::string(1023, 'x');
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", text), -EINVAL);
  EXPECT_EQ(snbf_debug, 1);
  text.resize(1024);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", text), 0);
  EXPECT_EQ(snbf_debug, 3);
  // All 1024 bytes digits: the last byte of the buffer ends them.
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", std::string(1024, '0')), 0);
  EXPECT_EQ(snbf_debug, 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ProcDebug, FailuresOfTheCopyAndOfMemoryAreAnswered) {
  ASSERT_EQ(sim.load_driver(), 0);
  ProcEntry entry;
  text_copy(entry.name, sizeof(entry.name), "debug");
  EXPECT_EQ(snbf_write_proc(nullptr, Sim::kBadUserAddress, 2, &entry), -EFAULT);
  EXPECT_EQ(snbf_write_proc(nullptr, 0, 2, &entry), -EINVAL);
  const UserBuffer buffer = sim.user(16);
  EXPECT_EQ(snbf_write_proc(nullptr, buffer.address(), 0, &entry), -EINVAL);
  EXPECT_EQ(snbf_write_proc(nullptr, buffer.address(), 2, nullptr), -EINVAL);
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(sim.write_proc("/proc/snbf/debug", "3\n"), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_write_proc(): Memory allocation failed.", 3), 1);
  EXPECT_EQ(snbf_debug, 1);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(ProcDebug, WritesToOtherFilesAreTakenAndIgnored) {
  ASSERT_EQ(sim.load_driver(), 0);
  ProcEntry entry;
  text_copy(entry.name, sizeof(entry.name), "chr_major");
  const char text[] = "3x\n";
  const UserBuffer buffer = sim.user_copy(text);
  EXPECT_EQ(snbf_write_proc(nullptr, buffer.address(), sizeof(text), &entry),
            static_cast<int>(sizeof(text)));
  EXPECT_EQ(snbf_chr_major, 100);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, ANodeDirectoryThatCannotBeMadeWholeIsRemoved) {
  load_with_partition(sim, {.debug = 2});
  const auto add = [&] { return add_filter(sim, "/dev/sda1", 3); };
  sim.fail_nth(Fault::ProcCreate, 1);
  EXPECT_EQ(add(), -EINVAL);
  EXPECT_EQ(
      sim.log().count("snbf_proc_add_device(): Failed to create /proc/snbf/snbf3 directory.", 3),
      1);
  for (std::size_t i = 0; i < kFilterFiles.size(); ++i) {
    sim.fail_nth(Fault::ProcCreate, i + 2);
    EXPECT_EQ(add(), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_proc_add_device(): Failed to create /proc/snbf/snbf3/" +
                                  kFilterFiles[i] + ".",
                              3),
              1)
        << kFilterFiles[i];
    EXPECT_FALSE(sim.proc_exists("/proc/snbf/snbf3"));
    EXPECT_FALSE(sim.disk_exists(kNode(3)));
  }
  sim.clear_faults();
  EXPECT_EQ(add(), 0);
  ASSERT_EQ(sim.unload_driver(), 0);
}

SIM_TEST(Proc, RemovalNamesWhatItRemovesFromTheLeavesUp) {
  load_with_partition(sim, {.debug = 2});
  ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
  sim.log().clear();
  ASSERT_EQ(delete_node(sim, 3), 0);
  EXPECT_TRUE(sim.log().contains("snbf_proc_del_device(): Removing /proc entry for snbf(100, 3)"));
  const std::string log = sim.log().dump();
  EXPECT_LT(log.find("Removing dev_type..."), log.find("Removing snaps..."));
  EXPECT_LT(log.find("Removing snaps..."), log.find("Removing snbf3..."));
  sim.log().clear();
  ASSERT_EQ(sim.unload_driver(), 0);
  EXPECT_EQ(sim.log().count("snbf_remove_proc(): Removing /proc/snbf tree."), 1);
}

// The removal of an entry waits for readers, and these for the table.
SIM_TEST_SEEDS(Proc, ReadersAndDeletionDoNotWaitForOneAnother, 60) {
  load_with_partition(sim, {.debug = 0});
  for (int i = 0; i < 2; ++i) {
    sim.spawn("reader", [&] {
      for (int round = 0; round < 20; ++round) {
        std::string text;
        const int rc = sim.read_proc("/proc/snbf/snbf3/minor", &text);
        EXPECT_TRUE(rc < 0 || text.empty() || text == "3\n") << text;
        sim.read_proc("/proc/snbf/debug", &text);
      }
    });
  }
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(add_filter(sim, "/dev/sda1", 3), 0);
    sim.point();
    ASSERT_EQ(delete_node(sim, 3), 0);
  }
  sim.join_all();
  ASSERT_EQ(sim.unload_driver(), 0);
}

}  // namespace
}  // namespace snbf::sim
