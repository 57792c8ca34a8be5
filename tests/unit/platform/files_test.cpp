// File systems: durability, faults, fullness, the journal, the freeze.
#include <algorithm>
#include <cstring>
#include <set>

#include "platform/block.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/task.h"
#include "sim_test.h"

using namespace snbf::sim;

namespace {

Bytes pattern(std::size_t bytes, u8 start) {
  Bytes data(bytes);
  for (std::size_t i = 0; i < bytes; ++i) data[i] = static_cast<u8>(start + i / 7);
  return data;
}

FileSystem* mounted(Sim& sim) {
  Device* disk = sim.add_device({.name = "sda"});
  FileSystem* fs = sim.add_fs("a", disk->number());
  EXPECT_EQ(sim.mount(fs, "/mnt/a"), 0);
  return fs;
}

}  // namespace

SIM_TEST(Files, HoldWhatWasWrittenOverAMount) {
  FileSystem* fs = mounted(sim);
  const Bytes data = pattern(100'000, 3);
  EXPECT_EQ(sim.make_dir("/mnt/a/dir"), 0);
  EXPECT_EQ(sim.write_file("/mnt/a/dir/file", data), 0);
  EXPECT_EQ(sim.write_at("/mnt/a/dir/file", 5000, Bytes(10, 0xEE)), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
  EXPECT_EQ(sim.mount(fs, "/mnt/a"), 0);
  Bytes back;
  EXPECT_EQ(sim.read_file("/mnt/a/dir/file", &back), 0);
  Bytes expected = data;
  std::fill_n(expected.begin() + 5000, 10, 0xEE);
  EXPECT_EQ(back, expected);
  EXPECT_EQ(sim.list_dir("/mnt/a/dir"), std::vector<std::string>{"file"});
  EXPECT_EQ(sim.unlink("/mnt/a/dir/file"), 0);
  EXPECT_FALSE(sim.exists("/mnt/a/dir/file"));
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Files, HoldZeroesWhereNobodyWroteWhateverTheirBlocksHeld) {
  Device* disk = sim.add_device({.name = "sda", .blank = 0xAA});
  FileSystem* fs = sim.add_fs("a", disk->number());
  ASSERT_EQ(sim.mount(fs, "/mnt/a"), 0);
  Bytes expected(2 * 4096 + 9);
  EXPECT_EQ(sim.write_at("/mnt/a/file", 5, Bytes(1, 1), true), 0);
  EXPECT_EQ(sim.write_at("/mnt/a/file", 2 * 4096 + 8, Bytes(1, 2), true), 0);
  expected[5] = 1;
  expected.back() = 2;
  Bytes back;
  EXPECT_EQ(sim.read_file("/mnt/a/file", &back), 0);
  EXPECT_EQ(back, expected);
  ASSERT_EQ(sim.unmount(fs), 0);
  ASSERT_EQ(sim.mount(fs, "/mnt/a"), 0);
  EXPECT_EQ(sim.read_file("/mnt/a/file", &back), 0);
  EXPECT_EQ(back, expected);
  EXPECT_EQ(sim.unmount(fs), 0);
}

TEST(Files, AreDurableWhenWrittenSynchronouslyAndElsePerhaps) {
  int kept = 0, missing = 0;
  for_seeds(40, [&](u64 seed) {
    Images images;
    {
      Sim sim({.seed = seed});
      EXPECT_EQ(sim.run([&] {
        mounted(sim);
        EXPECT_EQ(sim.write_file("/mnt/a/sync", pattern(9000, 1), true), 0);
        EXPECT_EQ(sim.write_file("/mnt/a/later", pattern(9000, 2)), 0);
        sim.power_cut();
      }),
                RunEnd::PowerCut);
      images = sim.take_images();
    }
    Sim sim({.seed = seed, .images = &images});
    EXPECT_EQ(sim.run([&] {
      EXPECT_EQ(sim.mount(sim.fs("a"), "/mnt/a"), 0);
      Bytes back;
      EXPECT_EQ(sim.read_file("/mnt/a/sync", &back), 0);
      EXPECT_EQ(back, pattern(9000, 1));
      ++(sim.exists("/mnt/a/later") ? kept : missing);
      EXPECT_EQ(sim.unmount(sim.fs("a")), 0);
    }),
              RunEnd::Done);
  });
  EXPECT_GT(kept, 3);
  EXPECT_GT(missing, 3);
}

SIM_TEST(Files, AreShortWhenTheDiskIsFull) {
  FileSystem* fs = mounted(sim);
  fs->set_free_blocks(2);
  plat_file* file = nullptr;
  ASSERT_EQ(snbf_plat_file_open("/mnt/a/x", PLAT_O_RDWR | PLAT_O_CREAT, 0600, &file), 0);
  const Bytes data(20'000, 1);
  EXPECT_EQ(snbf_plat_file_write(file, 0, data.data(), data.size()), 8192);
  EXPECT_EQ(snbf_plat_file_write(file, 8192, data.data(), data.size()), -ENOSPC);
  EXPECT_EQ(snbf_plat_file_close(file), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Files, ThatMustBeNewAreNoOldOnesAndNoLinks) {
  const auto make = [](const char* path) {
    plat_file* file = nullptr;
    const int rc =
        snbf_plat_file_open(path, PLAT_O_WRONLY | PLAT_O_CREAT | PLAT_O_EXCL, 0600, &file);
    if (rc == 0) {
      EXPECT_EQ(snbf_plat_file_close(file), 0);
    }
    return rc;
  };
  EXPECT_EQ(make("/tmp/x"), 0);
  EXPECT_EQ(make("/tmp/x"), -EEXIST);
  ASSERT_EQ(sim.make_symlink("/tmp/x", "/tmp/link"), 0);
  EXPECT_EQ(make("/tmp/link"), -EEXIST);
  ASSERT_EQ(sim.make_symlink("/tmp/nowhere", "/tmp/dangling"), 0);
  EXPECT_EQ(make("/tmp/dangling"), -EEXIST);
  EXPECT_FALSE(sim.exists("/tmp/nowhere"));
}

SIM_TEST(Files, FailAndAreShortAtTheNthCall) {
  plat_file* file = nullptr;
  ASSERT_EQ(snbf_plat_file_open("/tmp/x", PLAT_O_RDWR | PLAT_O_CREAT | PLAT_O_TRUNC, 0600, &file),
            0);
  char bytes[100] = {};
  sim.fail_nth(Fault::FileWrite, 2, -EDQUOT);
  EXPECT_EQ(snbf_plat_file_write(file, 0, bytes, 100), 100);
  EXPECT_EQ(snbf_plat_file_write(file, 0, bytes, 100), -EDQUOT);
  sim.fail_nth(Fault::ShortRead, 1);
  EXPECT_EQ(snbf_plat_file_read(file, 0, bytes, 100), 50);
  sim.fail_nth(Fault::ZeroWrite, 1);
  EXPECT_EQ(snbf_plat_file_write(file, 0, bytes, 100), 0);
  sim.fail_nth(Fault::FileSync, 1);
  EXPECT_EQ(snbf_plat_file_sync(file), -EIO);
  EXPECT_EQ(snbf_plat_file_size(file), 100u);
  EXPECT_EQ(snbf_plat_file_read(file, 100, bytes, 10), 0);
  EXPECT_EQ(snbf_plat_file_close(file), 0);
}

namespace {

// One page at its place in a file.
plat_s64 write_direct(plat_file* file, u64 index, u8 fill) {
  plat_direct_batch* batch = snbf_plat_direct_batch_make(1, 1);
  void* page = snbf_plat_page_alloc(PLAT_ALLOC_NORMAL);
  memset(page, fill, 4096);
  plat_file_piece piece = {index * 4096, &page, 4096, 0};
  snbf_plat_file_write_direct(file, batch, &piece, 1);
  snbf_plat_page_free(page);
  snbf_plat_direct_batch_free(batch);
  return piece.result;
}

}  // namespace

// Whatever the page cache holds of them, and however it came by it.
SIM_TEST_SEEDS(Files, ShowDirectWritesToEveryReader, 60) {
  FileSystem* fs = mounted(sim);
  plat_file* file = nullptr;
  ASSERT_EQ(snbf_plat_file_open("/mnt/a/x", PLAT_O_RDWR | PLAT_O_CREAT, 0600, &file), 0);
  ASSERT_EQ(sim.write_at("/mnt/a/x", 0, Bytes(3 * 4096, 0x11)), 0);  // in memory alone
  bool over = false;
  Task* reader = sim.spawn("reader", [&] {
    Bytes data;
    while (!over) EXPECT_EQ(sim.read_file("/mnt/a/x", &data), 0);
  });
  for (u8 round = 1; round <= 20; ++round) {
    ASSERT_EQ(write_direct(file, 1, static_cast<u8>(0x20 + round)), 4096);
    ASSERT_EQ(write_direct(file, 4, static_cast<u8>(0x40 + round)),
              4096);  // behind the end, at first
    Bytes data;
    ASSERT_EQ(sim.read_file("/mnt/a/x", &data), 0);
    Bytes expected(5 * 4096, 0);
    std::fill_n(expected.begin(), 3 * 4096, u8{0x11});
    std::fill_n(expected.begin() + 4096, 4096, static_cast<u8>(0x20 + round));
    std::fill_n(expected.begin() + 4 * 4096, 4096, static_cast<u8>(0x40 + round));
    EXPECT_EQ(data, expected);
    sim.sleep_us(sim.random(2000));
  }
  over = true;
  sim.join(reader);
  EXPECT_EQ(snbf_plat_file_close(file), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Files, TakeNoDirectWritesWithoutADevice) {
  FileSystem* fs = mounted(sim);
  plat_file* file = nullptr;
  ASSERT_EQ(snbf_plat_file_open("/tmp/x", PLAT_O_RDWR | PLAT_O_CREAT, 0600, &file), 0);
  EXPECT_EQ(write_direct(file, 0, 1), -EINVAL);
  EXPECT_EQ(snbf_plat_file_close(file), 0);
  ASSERT_EQ(snbf_plat_file_open("/mnt/a/x", PLAT_O_RDWR | PLAT_O_CREAT, 0600, &file), 0);
  fs->set_takes_direct(false);
  EXPECT_EQ(write_direct(file, 0, 1), -EINVAL);
  fs->set_takes_direct(true);
  EXPECT_EQ(write_direct(file, 0, 1), 4096);
  sim.device("sda")->fail_range(17 * 8, 8000, Op::Write, -EIO);
  EXPECT_EQ(write_direct(file, 0, 1), -EIO);
  sim.device("sda")->clear_failures();
  EXPECT_EQ(snbf_plat_file_close(file), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Files, TellAWriteErrorOfTheDeviceAtTheSync) {
  FileSystem* fs = mounted(sim);
  EXPECT_EQ(sim.write_file("/mnt/a/x", Bytes(4096, 1)), 0);
  sim.device("sda")->fail_range(17 * 8, 8000, Op::Write, -EIO);
  EXPECT_EQ(sim.sync_file("/mnt/a/x"), -EIO);
  sim.device("sda")->clear_failures();
  sim.unmount(fs);
}

SIM_TEST(Files, MayLackWhatASyncThatFailedWasToWrite) {
  FileSystem* fs = mounted(sim);
  constexpr u64 kPage = 4096, kPages = 8;
  const Bytes old(kPages * kPage, 1), fresh(kPages * kPage, 2);
  // Of each page that a reader, and the disk, holds: each as a whole.
  const auto pages_of = [&](std::vector<u8>* pages) {
    Bytes data;
    EXPECT_EQ(sim.read_file("/mnt/a/x", &data), 0);
    ASSERT_EQ(data.size(), kPages * kPage);
    pages->clear();
    for (u64 page = 0; page < kPages; ++page) {
      const std::span<const u8> bytes = std::span(data).subspan(page * kPage, kPage);
      EXPECT_TRUE(std::ranges::all_of(bytes, [&](u8 byte) { return byte == bytes[0]; }));
      pages->push_back(bytes[0]);
    }
  };
  std::set<int> errors;
  u64 hidden = 0, seen = 0, kept = 0;
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(sim.write_file("/mnt/a/x", old, true), 0);
    plat_file* file;
    ASSERT_EQ(snbf_plat_file_open("/mnt/a/x", PLAT_O_RDWR, 0600, &file), 0);
    ASSERT_EQ(snbf_plat_file_write(file, 0, fresh.data(), fresh.size()), s64{kPages * kPage});
    const u64 lost_before = fs->lost_pages();
    sim.fail_nth(Fault::SyncLoss, 1);
    errors.insert(snbf_plat_file_sync(file));
    EXPECT_EQ(snbf_plat_file_sync(file), 0);
    EXPECT_EQ(snbf_plat_file_close(file), 0);
    std::vector<u8> read, stored;
    pages_of(&read);
    ASSERT_EQ(sim.unmount(fs), 0);
    ASSERT_EQ(sim.mount(fs, "/mnt/a"), 0);
    pages_of(&stored);
    u64 lost = 0;
    for (u64 page = 0; page < kPages; ++page) {
      if (stored[page] == 2) {
        EXPECT_EQ(read[page], 2);
        ++kept;
        continue;
      }
      EXPECT_EQ(stored[page], 1);
      ++lost;
      ++(read[page] == 2 ? hidden : seen);
    }
    EXPECT_EQ(fs->lost_pages() - lost_before, lost);
  }
  EXPECT_EQ(errors, (std::set<int>{-ENOSPC, -EIO}));
  EXPECT_GT(hidden, 0u) << "a lost page that could be read yet";
  EXPECT_GT(seen, 0u);
  EXPECT_GT(kept, 0u);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Files, AreWhatIsOnDiskBehindAJournalThatFailed) {
  FileSystem* fs = mounted(sim);
  const Bytes old = pattern(9000, 3), fresh = pattern(9000, 50);
  EXPECT_EQ(sim.write_file("/mnt/a/file", old, true), 0);
  fs->abort_journal();
  const auto is_refusal = [](int error) { return error == -EROFS || error == -EIO; };
  EXPECT_TRUE(is_refusal(sim.write_at("/mnt/a/file", 0, fresh)));
  EXPECT_TRUE(is_refusal(sim.write_file("/mnt/a/file", fresh)));
  EXPECT_TRUE(is_refusal(sim.write_file("/mnt/a/other", fresh)));
  EXPECT_TRUE(is_refusal(sim.unlink("/mnt/a/file")));
  EXPECT_TRUE(is_refusal(sim.sync_all()));
  Bytes back;
  EXPECT_EQ(sim.read_file("/mnt/a/file", &back), 0);
  EXPECT_EQ(back, old);
  EXPECT_NE(sim.unmount(fs), 0);
  EXPECT_EQ(sim.mount(fs, "/mnt/a"), 0);
  EXPECT_EQ(sim.read_file("/mnt/a/file", &back), 0);
  EXPECT_EQ(back, old);
  EXPECT_EQ(sim.write_file("/mnt/a/file", fresh, true), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Freeze, HoldsWritersBackUntilTheThaw) {
  FileSystem* fs = mounted(sim);
  EXPECT_EQ(sim.write_file("/mnt/a/x", Bytes(5000, 1)), 0);
  plat_bdev* bdev = nullptr;
  ASSERT_EQ(snbf_plat_bdev_open(sim.device("sda")->number(), PLAT_MODE_READ, PLAT_OPEN_SHARED,
                                nullptr, &bdev),
            0);
  ASSERT_EQ(snbf_plat_bdev_freeze(bdev), 0);
  EXPECT_FALSE(fs->dirty());
  bool written = false;
  Task* writer = sim.spawn("writer", [&] {
    EXPECT_EQ(sim.write_file("/mnt/a/y", Bytes(5000, 1)), 0);
    written = true;
  });
  snbf_plat_sleep_ms(20'000);
  EXPECT_FALSE(written);
  EXPECT_EQ(snbf_plat_bdev_thaw(bdev), 0);
  sim.join(writer);
  EXPECT_EQ(fs->freeze_by_hand(), 0);
  EXPECT_EQ(snbf_plat_bdev_freeze(bdev), -EBUSY);
  EXPECT_EQ(fs->thaw_by_hand(), 0);
  EXPECT_EQ(snbf_plat_bdev_close(bdev, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr), 0);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Journal, WritesBackByItselfAfterAWhile) {
  FileSystem* fs = mounted(sim);
  EXPECT_EQ(sim.write_file("/mnt/a/x", Bytes(5000, 1)), 0);
  snbf_plat_sleep_ms(11'000);
  EXPECT_FALSE(fs->dirty());
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Paths, FollowLinksAndNameTheirStore) {
  FileSystem* fs = mounted(sim);
  EXPECT_EQ(sim.make_symlink("/dev/sda", "/tmp/link"), 0);
  EXPECT_EQ(sim.make_symlink("/mnt/a", "/tmp/a"), 0);
  plat_path* path = nullptr;
  plat_path_info info;
  ASSERT_EQ(snbf_plat_path_lookup("/tmp/link", 1, &path), 0);
  snbf_plat_path_info(path, &info);
  EXPECT_EQ(info.mode & PLAT_S_IFMT, PLAT_S_IFBLK);
  EXPECT_EQ(info.device, sim.device("sda")->number());
  EXPECT_EQ(info.store_device, 0u);
  snbf_plat_path_put(path);
  ASSERT_EQ(snbf_plat_path_lookup("/tmp/link", 0, &path), 0);
  snbf_plat_path_info(path, &info);
  EXPECT_NE(info.mode & PLAT_S_IFMT, PLAT_S_IFBLK);
  snbf_plat_path_put(path);
  EXPECT_EQ(sim.write_file("/tmp/a/x", Bytes(10, 1)), 0);
  ASSERT_EQ(snbf_plat_path_lookup("/tmp/a/x", 0, &path), 0);
  snbf_plat_path_info(path, &info);
  EXPECT_EQ(info.store_device, sim.device("sda")->number());
  snbf_plat_path_put(path);
  EXPECT_EQ(snbf_plat_path_lookup("/tmp/none", 0, &path), -ENOENT);
  EXPECT_EQ(snbf_plat_path_lookup("/dev/sda/x", 0, &path), -ENOTDIR);
  EXPECT_EQ(sim.unmount(fs), 0);
}

SIM_TEST(Parents, MakeAndRemoveNames) {
  plat_parent* parent = nullptr;
  ASSERT_EQ(snbf_plat_parent_lock("/tmp/node", &parent), 0);
  EXPECT_EQ(snbf_plat_parent_child(parent), 0);
  EXPECT_EQ(snbf_plat_parent_unlink(parent), -ENOENT);
  EXPECT_EQ(snbf_plat_parent_mknod(parent, PLAT_S_IFBLK | 0600, dev(100, 1)), 0);
  EXPECT_EQ(snbf_plat_parent_mknod(parent, PLAT_S_IFBLK | 0600, dev(100, 1)), -EEXIST);
  snbf_plat_parent_unlock(parent);
  ASSERT_EQ(snbf_plat_parent_lock("/tmp/..", &parent), 0);
  EXPECT_EQ(snbf_plat_parent_child(parent), -EEXIST);
  snbf_plat_parent_unlock(parent);
  ASSERT_EQ(snbf_plat_parent_lock("/tmp/none/", &parent), 0);
  EXPECT_EQ(snbf_plat_parent_child(parent), -ENOENT);
  snbf_plat_parent_unlock(parent);
  EXPECT_EQ(snbf_plat_parent_lock("/none/x", &parent), -ENOENT);
  ASSERT_EQ(snbf_plat_parent_lock("/tmp/node", &parent), 0);
  EXPECT_EQ(snbf_plat_parent_child(parent), 0);
  EXPECT_EQ(snbf_plat_parent_unlink(parent), 0);
  snbf_plat_parent_unlock(parent);
  EXPECT_FALSE(sim.exists("/tmp/node"));
}
