#include "filter/bmp.h"

#include <algorithm>

#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr u32 kExtents = 1000;
constexpr u32 kBytes = 125;

using Handler = int (*)(Node&, snbf_bmp_cmd&);

struct Named {
  Handler handler;
  const char* name;
  const char* begins;  // the line that it begins with
};
constexpr Named kBufferCommands[] = {
    {snbf_ioctl_get_bmp, "snbf_ioctl_get_bmp", "Getting"},
    {snbf_ioctl_get_and_clr_bmp, "snbf_ioctl_get_and_clr_bmp", "Getting and clearing"},
    {snbf_ioctl_set_bmp, "snbf_ioctl_set_bmp", "Setting"},
    {snbf_ioctl_merge_bmp, "snbf_ioctl_merge_bmp", "Merging"},
};

snbf_bmp_cmd command(u32 type, const UserBuffer& buffer) {
  return {3, type, static_cast<int32_t>(buffer.size()), 0, buffer.address()};
}

std::string line(const char* name, const std::string& text) {
  return std::string(name) + "(): " + text;
}

// A user buffer of the bitmap's size that counts up from `first`.
UserBuffer counting(Sim& sim, u8 first) {
  Bytes data(kBytes);
  for (u32 i = 0; i < kBytes; ++i) data[i] = static_cast<u8>(first + i);
  return sim.user(data);
}

SIM_TEST(BitmapCommands, BeginWithTheirLine) {
  BareFilter filter(sim, kExtents);
  UserBuffer buffer = sim.user(kBytes);
  for (const Named& named : kBufferCommands) {
    for (u32 type : {1u, 0u}) {
      snbf_bmp_cmd record = command(type, buffer);
      EXPECT_EQ(named.handler(*filter.node, record), 0);
      EXPECT_TRUE(sim.log().contains(line(
          named.name, std::string(named.begins) + (type == 1 ? " Incremental" : " Differential") +
                          " bitmap of snbf(100, 3)")))
          << sim.log().dump();
    }
  }
  snbf_bmp_sel sel = {3, 0};
  EXPECT_EQ(snbf_ioctl_clr_bmp(*filter.node, sel), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_ioctl_clr_bmp(): Clearing Differential bitmap of snbf(100, 3)"));
}

SIM_TEST(BitmapCommands, RefuseANodeThatIsNoFilter) {
  BareFilter filter(sim, kExtents);
  filter.node->dev_type = kSnapNode;
  UserBuffer buffer = sim.user(kBytes);
  for (const Named& named : kBufferCommands) {
    snbf_bmp_cmd record = command(7, buffer);  // the kind of the node is looked at first
    EXPECT_EQ(named.handler(*filter.node, record), -EINVAL);
    EXPECT_EQ(sim.log().count(line(named.name, "snbf(100, 3) is not a filter device"), 3), 1);
  }
  snbf_bmp_sel sel = {3, 1};
  EXPECT_EQ(snbf_ioctl_clr_bmp(*filter.node, sel), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_ioctl_clr_bmp(): snbf(100, 3) is not a filter device", 3), 1);
  EXPECT_EQ(sim.log().errors(), 5);
  filter.node->dev_type = kFilterNode;
}

SIM_TEST(BitmapCommands, RefuseAnUnknownTypeBeforeAnySize) {
  BareFilter filter(sim, kExtents);
  for (u32 type : {2u, 0xFFFFFFFFu}) {
    sim.log().clear();
    const std::string text = "Invalid bitmap type " + std::to_string(static_cast<int>(type)) +
                             " (should be either 1 or 0)";
    for (const Named& named : kBufferCommands) {
      snbf_bmp_cmd record = {3, type, 1, 0, 0};
      EXPECT_EQ(named.handler(*filter.node, record), -EINVAL);
      EXPECT_EQ(sim.log().count(line(named.name, text), 3), 1) << sim.log().dump();
      EXPECT_TRUE(
          sim.log().contains(line(named.name, std::string(named.begins) + " Unknown bitmap")));
    }
    snbf_bmp_sel sel = {3, type};
    EXPECT_EQ(snbf_ioctl_clr_bmp(*filter.node, sel), -EINVAL);
    EXPECT_EQ(sim.log().count(line("snbf_ioctl_clr_bmp", text), 3), 1);
    EXPECT_EQ(sim.log().errors(), 5);
  }
}

SIM_TEST(BitmapCommands, RefuseASizeThatIsNotTheBitmaps) {
  BareFilter filter(sim, kExtents);
  filter.fill(0x11, 0x22);
  UserBuffer buffer = counting(sim, 0);
  const Bytes before = buffer.bytes();
  for (const Named& named : kBufferCommands) {
    for (int size : {124, 126, -1}) {
      sim.log().clear();
      snbf_bmp_cmd record = command(1, buffer);
      record.size = size;
      EXPECT_EQ(named.handler(*filter.node, record), -EINVAL);
      EXPECT_EQ(sim.log().count(line(named.name, "Invalid bitmap size " + std::to_string(size) +
                                                     ". Should have been 125"),
                                3),
                1);
      EXPECT_EQ(sim.log().errors(), 1);
    }
  }
  EXPECT_EQ(buffer.bytes(), before);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0x11));
}

SIM_TEST(BitmapCommands, RefuseANullBuffer) {
  BareFilter filter(sim, kExtents);
  for (const Named& named : kBufferCommands) {
    if (named.handler == snbf_ioctl_set_bmp) continue;
    snbf_bmp_cmd record = {3, 1, static_cast<int32_t>(kBytes), 0, 0};
    EXPECT_EQ(named.handler(*filter.node, record), -EINVAL);
    EXPECT_EQ(sim.log().count(line(named.name, "NULL bitmap data pointer passed as input"), 3), 1);
  }
}

SIM_TEST(GetBitmap, CopiesItAndChangesNothing) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xA5, 0x3C);
  filter.set_dirty(1, 0);
  UserBuffer buffer = sim.user(kBytes);
  snbf_bmp_cmd record = command(1, buffer);
  const snbf_bmp_cmd before = record;
  ASSERT_EQ(snbf_ioctl_get_bmp(*filter.node, record), 0);
  EXPECT_EQ(buffer.bytes(), Bytes(kBytes, 0xA5));
  EXPECT_EQ(std::memcmp(&record, &before, sizeof(record)), 0);
  record = command(0, buffer);
  ASSERT_EQ(snbf_ioctl_get_bmp(*filter.node, record), 0);
  EXPECT_EQ(buffer.bytes(), Bytes(kBytes, 0x3C));
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(filter.diff_dirty(), 0);
  EXPECT_FALSE(sim.exists(filter.node->incr_bmp_fname));
}

SIM_TEST(GetBitmap, ReachesABufferThatNobodyHasTouched) {
  BareFilter filter(sim, 8 * 3 * 4096);
  filter.fill(0xA5, 0);
  UserBuffer buffer = sim.user(3 * 4096);
  buffer.untouch();
  snbf_bmp_cmd record = command(1, buffer);
  ASSERT_EQ(snbf_ioctl_get_bmp(*filter.node, record), 0);
  EXPECT_EQ(buffer.bytes(), Bytes(3 * 4096, 0xA5));
}

SIM_TEST(GetBitmap, AFaultIsAnswered) {
  BareFilter filter(sim, 8 * 3 * 4096);
  UserBuffer buffer = sim.user(3 * 4096);
  buffer.fault_at(4096);
  UserBuffer read_only = sim.user(3 * 4096);
  read_only.make_read_only();
  snbf_bmp_cmd bad = {3, 1, 3 * 4096, 0, Sim::kBadUserAddress};
  for (snbf_bmp_cmd record : {command(1, buffer), command(1, read_only), bad}) {
    for (Handler handler : {snbf_ioctl_get_bmp, snbf_ioctl_get_and_clr_bmp}) {
      sim.log().clear();
      filter.fill(0xA5, 0);
      EXPECT_EQ(handler(*filter.node, record), -EFAULT);
      EXPECT_EQ(sim.log().count("(): Failed to copyout the bitmap", 3), 1);
      // A copy that failed takes no changes away.
      EXPECT_EQ(filter.incr(), Bytes(3 * 4096, 0xA5));
      EXPECT_EQ(filter.incr_dirty(), 0);
    }
  }
}

SIM_TEST(GetBitmap, AMissingPinIsAFault) {
  BareFilter filter(sim, kExtents);
  UserBuffer buffer = sim.user(kBytes);
  snbf_bmp_cmd record = command(1, buffer);
  sim.fail_nth(Fault::UserPin, 1);
  EXPECT_EQ(snbf_ioctl_get_bmp(*filter.node, record), -EFAULT);
  sim.fail_nth(Fault::UserPin, 1);
  EXPECT_EQ(snbf_ioctl_set_bmp(*filter.node, record), -EFAULT);
  EXPECT_EQ(filter.incr_dirty(), 0);
}

SIM_TEST(GetAndClearBitmap, TakesTheChangesAndSavesTheEmptyOne) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xA5, 0x3C);
  UserBuffer buffer = sim.user(kBytes);
  snbf_bmp_cmd record = command(1, buffer);
  ASSERT_EQ(snbf_ioctl_get_and_clr_bmp(*filter.node, record), 0);
  EXPECT_EQ(buffer.bytes(), Bytes(kBytes, 0xA5));
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0));
  EXPECT_EQ(filter.diff(), Bytes(kBytes, 0x3C));
  EXPECT_EQ(filter.incr_dirty(), 0);  // saved at once
  EXPECT_TRUE(sim.exists(filter.node->incr_bmp_fname));
  EXPECT_FALSE(sim.exists(filter.node->diff_bmp_fname));
  ASSERT_EQ(snbf_ioctl_get_bmp(*filter.node, record), 0);
  EXPECT_EQ(buffer.bytes(), Bytes(kBytes, 0));
}

// Whatever is marked while the agent takes bitmaps is in one of them or still there; in each once.
SIM_TEST_SEEDS(GetAndClearBitmap, LosesNoChangeMarkedMeanwhile, 40) {
  BareFilter filter(sim, 64);
  std::vector<Bytes> taken;
  Task* agent = sim.spawn("agent", [&] {
    for (int i = 0; i < 4; ++i) {
      UserBuffer buffer = sim.user(8);
      snbf_bmp_cmd record = command(1, buffer);
      EXPECT_EQ(snbf_ioctl_get_and_clr_bmp(*filter.node, record), 0);
      taken.push_back(buffer.bytes());
    }
  });
  for (int task = 0; task < 2; ++task) {
    sim.spawn("writer", [this, &filter, task] {
      for (u64 extent = 0; extent < 32; ++extent) {
        mark_extents(*filter.node, {Sector{(extent * 2 + task) * 8}, 1});
        sim.point();
      }
    });
  }
  sim.join(agent);
  sim.join_all();
  taken.push_back(filter.incr());
  for (u32 extent = 0; extent < 64; ++extent) {
    int times = 0;
    for (const Bytes& bits : taken) times += bits[extent / 8] >> (extent % 8) & 1;
    EXPECT_EQ(times, 1) << extent;
  }
}

SIM_TEST(SetBitmap, ReplacesItAndSaves) {
  BareFilter filter(sim, kExtents);
  UserBuffer buffer = counting(sim, 9);
  snbf_bmp_cmd record = command(0, buffer);
  ASSERT_EQ(snbf_ioctl_set_bmp(*filter.node, record), 0);
  EXPECT_EQ(filter.diff(), buffer.bytes());
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0));
  EXPECT_EQ(filter.diff_dirty(), 0);
  EXPECT_TRUE(sim.exists(filter.node->diff_bmp_fname));
}

SIM_TEST(SetBitmap, OfNothingMarksEverything) {
  BareFilter filter(sim, kExtents);
  snbf_bmp_cmd record = {3, 1, 0, 0, 0};
  ASSERT_EQ(snbf_ioctl_set_bmp(*filter.node, record), 0);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xFF));
  EXPECT_TRUE(sim.exists(filter.node->incr_bmp_fname));
}

SIM_TEST(SetBitmap, SizeAndBufferBelongTogether) {
  BareFilter filter(sim, kExtents);
  UserBuffer buffer = sim.user(kBytes);
  for (snbf_bmp_cmd record : {snbf_bmp_cmd{3, 1, 0, 0, buffer.address()},
                              snbf_bmp_cmd{3, 1, static_cast<int32_t>(kBytes), 0, 0}}) {
    sim.log().clear();
    EXPECT_EQ(snbf_ioctl_set_bmp(*filter.node, record), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_ioctl_set_bmp(): bitmap size and bitmap data pointer must "
                              "either be both NULL or both not-NULL",
                              3),
              1);
  }
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0));
}

SIM_TEST(SetBitmap, AFaultLeavesWhatWasCopiedBeforeIt) {
  BareFilter filter(sim, 8 * 3 * 4096);
  filter.fill(0x11, 0);
  UserBuffer buffer = sim.user(Bytes(3 * 4096, 0x77));
  buffer.fault_at(2 * 4096);
  snbf_bmp_cmd record = command(1, buffer);
  EXPECT_EQ(snbf_ioctl_set_bmp(*filter.node, record), -EFAULT);
  EXPECT_EQ(sim.log().count("snbf_ioctl_set_bmp(): Failed to copyin the bitmap", 3), 1);
  const Bytes now = filter.incr();
  EXPECT_EQ(now[0], 0x77);
  EXPECT_EQ(now[2 * 4096], 0x11);
  EXPECT_EQ(now[3 * 4096 - 1], 0x11);
  EXPECT_EQ(filter.incr_dirty(), 0);
  EXPECT_FALSE(sim.exists(filter.node->incr_bmp_fname));
}

SIM_TEST(MergeBitmap, AddsTheBits) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xF0, 0);
  UserBuffer buffer = sim.user(Bytes(kBytes, 0x3C));
  snbf_bmp_cmd record = command(1, buffer);
  ASSERT_EQ(snbf_ioctl_merge_bmp(*filter.node, record), 0);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xFC));
  EXPECT_EQ(filter.incr_dirty(), 0);
}

SIM_TEST(MergeBitmap, OfZerosStillSaves) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xF0, 0);
  UserBuffer buffer = sim.user(Bytes(kBytes, 0));
  snbf_bmp_cmd record = command(1, buffer);
  ASSERT_EQ(snbf_ioctl_merge_bmp(*filter.node, record), 0);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xF0));
  EXPECT_TRUE(sim.exists(filter.node->incr_bmp_fname));
}

SIM_TEST(MergeBitmap, FailsWithoutATrace) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xF0, 0);
  UserBuffer buffer = sim.user(Bytes(kBytes, 0x0F));
  snbf_bmp_cmd record = command(1, buffer);
  sim.fail_nth(Fault::Virt, 1);
  EXPECT_EQ(snbf_ioctl_merge_bmp(*filter.node, record), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_ioctl_merge_bmp(): Failed to allocate a 125-byte buffer", 3), 1);
  sim.fail_nth(Fault::CopyFromUser, 1);
  EXPECT_EQ(snbf_ioctl_merge_bmp(*filter.node, record), -EFAULT);
  EXPECT_EQ(sim.log().count("snbf_ioctl_merge_bmp(): Failed to copyin the bitmap", 3), 1);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xF0));
  EXPECT_EQ(filter.incr_dirty(), 0);
}

SIM_TEST(ClearBitmap, ClearsTheOneAndSaves) {
  BareFilter filter(sim, kExtents);
  filter.fill(0xFF, 0xFF);
  snbf_bmp_sel sel = {3, 1};
  ASSERT_EQ(snbf_ioctl_clr_bmp(*filter.node, sel), 0);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0));
  EXPECT_EQ(filter.diff(), Bytes(kBytes, 0xFF));
  EXPECT_TRUE(sim.exists(filter.node->incr_bmp_fname));
}

SIM_TEST(ClearBitmap, AnswersZeroAlthoughTheSaveIsRefused) {
  Device* disk = sim.add_device({.name = "node", .number = dev(100, 3)});
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.mount(sim.add_fs("own", disk->number()), "/var/bmp"), 0);
  filter.fill(0xFF, 0xFF);
  snbf_bmp_sel sel = {3, 1};
  EXPECT_EQ(snbf_ioctl_clr_bmp(*filter.node, sel), 0);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0));
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(sim.log().count("snbf_block_save_bmp(): Can't save bitmap to /var/bmp/snbf3.incr. The "
                            "file must be moved to a different partition.",
                            3),
            1);
  ASSERT_EQ(sim.unmount(sim.fs("own")), 0);
}

SIM_TEST(Mark, AWriteAcrossABoundaryMarksBothExtents) {
  BareFilter filter(sim, kExtents);
  mark_extents(*filter.node, {Sector{7}, 8});
  Bytes expected(kBytes, 0);
  expected[0] = 0x03;
  EXPECT_EQ(filter.incr(), expected);
  EXPECT_EQ(filter.diff(), expected);
}

SIM_TEST(Mark, TheLastSectorMarksTheLastExtentAndNothingBehindIt) {
  BareFilter filter(sim, kExtents);
  mark_extents(*filter.node, {Sector{kExtents * 8 - 1}, 1});
  Bytes expected(kBytes, 0);
  expected[kBytes - 1] = 0x80;
  EXPECT_EQ(filter.incr(), expected);
  mark_extents(*filter.node, {Sector{kExtents * 8 - 1}, 1000});
  EXPECT_EQ(filter.incr(), expected);
  mark_extents(*filter.node, {Sector{u64{1} << 60}, 8});
  EXPECT_EQ(filter.incr(), expected);
}

SIM_TEST(Mark, SchedulesOneFlagForEachBitmapThatWasClean) {
  BareFilter filter(sim, kExtents);
  const std::string line = "snbf_sched_write_dirty_flag(): Appending dirty request for ";
  mark_extents(*filter.node, {Sector{0}, 8});
  EXPECT_EQ(sim.log().count(line + "Incremental bitmap of snbf(100, 3)"), 1);
  EXPECT_EQ(sim.log().count(line + "Differential bitmap of snbf(100, 3)"), 1);
  mark_extents(*filter.node, {Sector{8}, 800});
  EXPECT_EQ(sim.log().count(line), 2);
  // The Incremental is clean again: the next new bit counts for it alone, a bit that is set for
  // none.
  filter.set_dirty(0, 1);
  mark_extents(*filter.node, {Sector{0}, 8});
  EXPECT_EQ(sim.log().count(line), 2);
  mark_extents(*filter.node, {Sector{2000}, 8});
  EXPECT_EQ(sim.log().count(line + "Incremental bitmap of snbf(100, 3)"), 2);
  EXPECT_EQ(sim.log().count(line), 3);
}

SIM_TEST(Mark, PassesOverABitmapThatIsNotThere) {
  BareFilter filter(sim, kExtents);
  u32* diff = filter.node->diff_bmp;
  filter.node->diff_bmp = nullptr;
  mark_extents(*filter.node, {Sector{0}, 8});
  EXPECT_EQ(filter.incr()[0], 1);
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(filter.diff_dirty(), 0);
  filter.node->diff_bmp = diff;
  EXPECT_EQ(filter.diff(), Bytes(kBytes, 0));
}

// Against a plain model, over every extent size that tests the arithmetic.
SIM_TEST_SEEDS(Mark, AgreesWithAPlainModel, 20) {
  BareFilter filter(sim, 333);
  filter.node->extent_shift = 9 + static_cast<u32>(sim.random(9));
  filter.node->extent_size = 1u << filter.node->extent_shift;
  const u64 extent_sectors = filter.node->extent_size / 512;
  std::vector<bool> model(333, false);
  for (int i = 0; i < 60; ++i) {
    const u64 first = sim.random(333 * extent_sectors);
    const u64 count =
        1 + sim.random(std::min<u64>(333 * extent_sectors - first, 4 * extent_sectors));
    mark_extents(*filter.node, {Sector{first}, count});
    for (u64 sector = first; sector < first + count; ++sector)
      model[sector / extent_sectors] = true;
  }
  const Bytes incr = filter.incr();
  EXPECT_EQ(incr, filter.diff());
  for (u32 extent = 0; extent < 333; ++extent) {
    EXPECT_EQ((incr[extent / 8] >> (extent % 8) & 1) != 0, model[extent]) << extent;
  }
}

}  // namespace
}  // namespace snbf::sim
