#include "filter/bmpfile.h"

#include "filter/bmp.h"
#include "filter/crc32.h"
#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr u32 kExtents = 1000;
constexpr u32 kBytes = 125;
constexpr const char* kIncr = "/var/bmp/snbf3.incr";
constexpr const char* kDiff = "/var/bmp/snbf3.diff";
constexpr u32 kTypes[] = {SNBF_BMP_INCR, SNBF_BMP_DIFF};

Bytes image(const Bytes& bits, u8 dirty = 0) {
  Bytes file = {'S', 'N', 'B', 'F', 'B', 'M', 'P', dirty};
  const auto put = [&file](u32 value) {
    for (int i = 0; i < 4; ++i) file.push_back(static_cast<u8>(value >> (8 * i)));
  };
  put(static_cast<u32>(bits.size()));
  u32 checksum = 0xFFFFFFFF;
  snbf_crc32(bits.data(), static_cast<int>(bits.size()), &checksum);
  put(checksum);
  file.insert(file.end(), bits.begin(), bits.end());
  return file;
}

Bytes pattern(u32 seed) {
  Bytes bits(kBytes);
  for (u32 i = 0; i < kBytes; ++i) bits[i] = static_cast<u8>(i * 37 + seed);
  return bits;
}

Bytes contents(Sim& sim, const char* path) {
  Bytes data;
  EXPECT_TRUE(sim.peek_file(path, &data)) << path;
  return data;
}

void set_incr(BareFilter& filter, const Bytes& bits) {
  SpinGuard hold{filter.node->bmp_spin};
  std::memcpy(filter.node->incr_bmp, bits.data(), bits.size());
}

u64 first_clear(const Bytes& bits) {
  u64 extent = 0;
  while ((bits[extent / 8] >> extent % 8 & 1) != 0) ++extent;
  return extent;
}

// What every distrusted file comes to.
void expect_distrust(Sim& sim, BareFilter& filter, int error, const std::string& message) {
  filter.fill(0, 0);
  filter.set_dirty(0, 0);
  sim.log().clear();
  EXPECT_EQ(snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR), error) << message;
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xFF)) << message;
  EXPECT_EQ(filter.incr_dirty(), 1) << message;
  EXPECT_EQ(filter.diff(), Bytes(kBytes, 0));
  EXPECT_EQ(filter.diff_dirty(), 0);
  if (!message.empty()) {
    EXPECT_EQ(sim.log().count(message, 3), 1) << sim.log().dump();
  }
}

SIM_TEST(SaveBitmap, WritesTheDocumentedFile) {
  BareFilter filter(sim, kExtents);
  set_incr(filter, pattern(1));
  filter.set_dirty(1, 1);
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_block_save_bmp(): Saving Incremental bitmap of snbf(100, 3)"));
  EXPECT_EQ(contents(sim, kIncr), image(pattern(1)));
  EXPECT_EQ(filter.incr_dirty(), 0);
  EXPECT_EQ(filter.diff_dirty(), 1);
  EXPECT_FALSE(sim.exists(kDiff));
}

SIM_TEST(SaveBitmap, AnEmptyOneHasTheChecksumOfItsZeros) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_DIFF), 0);
  EXPECT_EQ(contents(sim, kDiff), image(Bytes(kBytes, 0)));
}

SIM_TEST(SaveBitmap, ReplacesALongerFile) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.write_file(kIncr, Bytes(5000, 0xEE)), 0);
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  EXPECT_EQ(contents(sim, kIncr).size(), 16u + kBytes);
}

SIM_TEST(SaveBitmap, WithoutMemoryTheDirtyFieldStays) {
  BareFilter filter(sim, kExtents);
  for (int dirty : {0, 1}) {
    filter.set_dirty(dirty, 0);
    sim.log().clear();
    sim.fail_nth(Fault::Virt, 1);
    EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -ENOMEM);
    EXPECT_EQ(sim.log().count("snbf_block_save_bmp(): Failed to allocate 125 bytes.", 3), 1);
    EXPECT_EQ(filter.incr_dirty(), dirty);
  }
}

SIM_TEST(SaveBitmap, AFileThatDoesNotOpenLeavesItDirty) {
  BareFilter filter(sim, kExtents);
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -EIO);
  EXPECT_EQ(filter.incr_dirty(), 1);
}

// The dirty field is up already; what counts is the file, which is still there.
SIM_TEST(SaveBitmap, AfterOneThatCannotOpenItsFileTheNextWriteRaisesTheFlag) {
  BareFilter filter(sim, kExtents);
  set_incr(filter, pattern(1));
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  ASSERT_EQ(contents(sim, kIncr), image(pattern(1)));
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -EIO);
  ASSERT_EQ(filter.incr_dirty(), 1);
  const u64 unset = first_clear(pattern(1));
  EXPECT_FALSE(mark_extents(*filter.node, {Sector{8 * unset}, 8}));
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_EQ(contents(sim, kIncr).size(), 8u);
  EXPECT_TRUE(mark_extents(*filter.node, {Sector{0}, 8 * kExtents}));
}

// The file on disk may still be the whole one of before: a write of what only the failed save held has to wait.
SIM_TEST(SaveBitmap, AfterOneThatFailedWithinItsFileWritesWaitForTheFlag) {
  BareFilter filter(sim, kExtents);
  set_incr(filter, pattern(1));
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  const u64 extent = first_clear(pattern(1));
  {
    SpinGuard hold{filter.node->bmp_spin};
    reinterpret_cast<u8*>(filter.node->incr_bmp)[extent / 8] |= static_cast<u8>(1u << extent % 8);
    filter.node->incr_guard.count_mark();
  }
  sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
  {
    KsMutexGuard file_work{filter.node->bmp_mutex};
    EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -ENOSPC);
    EXPECT_FALSE(mark_extents(*filter.node, {Sector{8 * extent}, 8}));
  }
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
  EXPECT_TRUE(mark_extents(*filter.node, {Sector{8 * extent}, 8}));
}

// Whichever write fails: the error is answered, the bitmap stays dirty, and no load accepts what is
// left.
SIM_TEST(SaveBitmap, AFailedWriteLeavesAFileThatNoLoadAccepts) {
  for (u8 byte : {u8{0x5A}, u8{0}}) {  // a run of zeros that is cut short keeps its checksum
    BareFilter filter(sim, kExtents);
    KsMutexGuard file_work{filter.node->bmp_mutex};  // no flag cuts it down meanwhile
    for (int nth = 1; nth <= 5; ++nth) {
      filter.fill(byte, 0);
      filter.set_dirty(0, 0);
      sim.fail_nth(Fault::FileWrite, static_cast<u64>(nth), -ENOSPC);
      EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -ENOSPC) << nth;
      EXPECT_EQ(filter.incr_dirty(), 1);
      filter.fill(0, 0);
      snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR);
      EXPECT_EQ(filter.incr(), Bytes(kBytes, 0xFF)) << nth;
    }
    // The bitmap itself, half of it written.
    filter.fill(byte, 0);
    sim.fail_nth(Fault::ShortWrite, 4);  // the one byte of the flag cannot be short
    sim.fail_nth(Fault::FileWrite, 6, -ENOSPC);
    EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -ENOSPC);
    expect_distrust(sim, filter, 0, "has invalid checksum. Ignoring file contents.");
  }
}

// What a backup that failed gives back is in memory alone then: the file must not be believed without it, though no
// write ever comes.
SIM_TEST(SaveBitmap, AfterAMergeThatCannotSaveTheFlagIsRaised) {
  struct {
    Fault fault;
    u64 nth;
  } causes[] = {
      {Fault::FileOpen, 1}, {Fault::FileWrite, 1}, {Fault::FileWrite, 5}, {Fault::Virt, 2}};
  for (const auto& cause : causes) {
    BareFilter filter(sim, kExtents);
    set_incr(filter, Bytes(kBytes, 0));
    ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
    filter.set_dirty(0, 0);
    UserBuffer bits = sim.user(Bytes(kBytes, 0xFF));
    snbf_bmp_cmd record = {3, SNBF_BMP_INCR, kBytes, 0, bits.address()};
    sim.fail_nth(cause.fault, cause.nth, -EIO);
    ASSERT_EQ(snbf_ioctl_merge_bmp(*filter.node, record), 0);
    EXPECT_TRUE(sim.fault_reached(cause.fault));
    ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 10), 0);
    EXPECT_EQ(contents(sim, kIncr), (Bytes{'S', 'N', 'B', 'F', 'B', 'M', 'P', 1}));
    EXPECT_EQ(filter.incr_dirty(), 1);
  }
}

// Where its store is cannot be told any more once the file is open: what was written may lie anywhere.
SIM_TEST(SaveBitmap, FailsWhereTheStoreGoesAwayJustThen) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  u64 refused = 0;
  for (u64 nth = 1; nth <= 8; ++nth) {
    sim.log().clear();
    filter.set_dirty(0, 0);
    sim.fail_nth(Fault::Heap, nth);
    const int rc = snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR);
    sim.clear_faults();
    EXPECT_EQ(filter.incr_dirty(), rc != 0) << nth;
    if (rc != 0 && sim.log().contains("lies in another file system than before")) ++refused;
    ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  }
  EXPECT_EQ(refused, 2u) << "before it is opened, and behind that";
}

SIM_TEST(SaveBitmap, RefusesAFileThatLiesOnTheNode) {
  Device* disk = sim.add_device({.name = "node", .number = dev(100, 3)});
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.mount(sim.add_fs("own", disk->number()), "/var/bmp"), 0);
  filter.set_dirty(1, 1);
  EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_block_save_bmp(): Can't save bitmap to /var/bmp/snbf3.incr. The "
                            "file must be moved to a different partition.",
                            3),
            1);
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_DIFF, 1), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_block_write_dirty_flag(): Can't set dirty flag in "
                            "/var/bmp/snbf3.diff. The file must be moved to a different partition.",
                            3),
            1);
  EXPECT_FALSE(sim.exists(kIncr));
  // Another node's file system is no matter.
  filter.node->minor = 4;
  EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  ASSERT_EQ(sim.unmount(sim.fs("own")), 0);
}

// Never a file that is trusted and lacks the bit, with nothing left to be saved.
SIM_TEST_SEEDS(SaveBitmap, AChangeMarkedMeanwhileIsInTheFileOrLeavesItDirty, 60) {
  BareFilter filter(sim, kExtents);
  Task* writer = sim.spawn("writer", [&] { mark_extents(*filter.node, {Sector{8 * 77}, 1}); });
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  sim.join(writer);
  ASSERT_EQ(snbf_yield_to_dirty_requests(*filter.node, 60), 0);
  const Bytes file = contents(sim, kIncr);
  const bool saved = file.size() > 16 && (file[16 + 77 / 8] >> (77 % 8) & 1) != 0;
  const bool flagged = file == Bytes{'S', 'N', 'B', 'F', 'B', 'M', 'P', 1};
  EXPECT_TRUE(saved || flagged || filter.incr_dirty() == 1);
}

SIM_TEST(SaveDirtyBitmaps, SavesThoseThatAreDirty) {
  BareFilter filter(sim, kExtents);
  EXPECT_EQ(snbf_block_save_dirty_bmps(*filter.node), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_block_save_dirty_bmps(): Saving dirty incr/diff bitmaps to disk"));
  EXPECT_FALSE(sim.exists(kIncr));
  EXPECT_FALSE(sim.exists(kDiff));
  filter.set_dirty(0, 1);
  EXPECT_EQ(snbf_block_save_dirty_bmps(*filter.node), 0);
  EXPECT_FALSE(sim.exists(kIncr));
  EXPECT_TRUE(sim.exists(kDiff));
  filter.set_dirty(1, 1);
  sim.log().clear();
  EXPECT_EQ(snbf_block_save_dirty_bmps(*filter.node), 0);
  const std::string log = sim.log().dump();
  EXPECT_LT(log.find("Saving Incremental"), log.find("Saving Differential"));
}

SIM_TEST(SaveDirtyBitmaps, AnswersTheFirstFailureAndSavesTheOther) {
  BareFilter filter(sim, kExtents);
  filter.set_dirty(1, 1);
  sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
  EXPECT_EQ(snbf_block_save_dirty_bmps(*filter.node), -ENOSPC);
  EXPECT_EQ(filter.incr_dirty(), 1);
  EXPECT_EQ(filter.diff_dirty(), 0);
  filter.set_dirty(0, 1);
  sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
  EXPECT_EQ(snbf_block_save_dirty_bmps(*filter.node), -ENOSPC);
}

SIM_TEST(LoadBitmap, TakesAWholeCleanFile) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.write_file(kIncr, image(pattern(7))), 0);
  filter.set_dirty(1, 1);
  ASSERT_EQ(snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_block_load_bmp(): Loading Incremental bitmap of snbf(100, 3)"));
  EXPECT_EQ(filter.incr(), pattern(7));
  EXPECT_EQ(filter.incr_dirty(), 0);
  EXPECT_EQ(filter.diff_dirty(), 1);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(LoadBitmap, DistrustsWhatItCannotVerify) {
  BareFilter filter(sim, kExtents);
  const std::string begin = "snbf_block_load_bmp(): File /var/bmp/snbf3.incr ";
  expect_distrust(sim, filter, -EIO,
                  "snbf_fopen(): Failed to open file /var/bmp/snbf3.incr for reading: errno=-2");

  Bytes file = image(pattern(1));
  file[3] ^= 0x20;
  ASSERT_EQ(sim.write_file(kIncr, file), 0);
  expect_distrust(sim, filter, -EIO, begin + "is corrupt: Invalid prefix.");
  ASSERT_EQ(sim.write_file(kIncr, Bytes{'S', 'N', 'B'}), 0);
  expect_distrust(sim, filter, -EIO, begin + "is corrupt: Invalid prefix.");
  ASSERT_EQ(sim.write_file(kIncr, Bytes{}), 0);
  expect_distrust(sim, filter, -EIO, begin + "is corrupt: Invalid prefix.");

  ASSERT_EQ(sim.write_file(kIncr, Bytes{'S', 'N', 'B', 'F', 'B', 'M', 'P', 1}), 0);
  expect_distrust(sim, filter, 0, begin + "is dirty. Ignoring file contents.");
  ASSERT_EQ(sim.write_file(kIncr, image(pattern(1), 1)), 0);
  expect_distrust(sim, filter, 0, begin + "is dirty. Ignoring file contents.");

  ASSERT_EQ(sim.write_file(kIncr, image(Bytes(kBytes - 1, 0))), 0);
  expect_distrust(sim, filter, 0,
                  begin + "contains bitmap of invalid size. Ignoring file contents.");
  ASSERT_EQ(sim.write_file(kIncr, Bytes{'S', 'N', 'B', 'F', 'B', 'M', 'P', 0}), 0);
  expect_distrust(sim, filter, 0,
                  begin + "contains bitmap of invalid size. Ignoring file contents.");

  file = image(pattern(1));
  file[16 + 60] ^= 0x01;
  ASSERT_EQ(sim.write_file(kIncr, file), 0);
  expect_distrust(sim, filter, 0, begin + "has invalid checksum. Ignoring file contents.");
  file = image(pattern(1));
  file.resize(16);
  ASSERT_EQ(sim.write_file(kIncr, file), 0);
  expect_distrust(sim, filter, 0, begin + "has invalid checksum. Ignoring file contents.");
  // The bits that are missing are zeros, and the checksum with them is right.
  file = image(Bytes(kBytes, 0));
  file.resize(100);
  ASSERT_EQ(sim.write_file(kIncr, file), 0);
  expect_distrust(sim, filter, 0, begin + "has invalid checksum. Ignoring file contents.");
}

SIM_TEST(LoadBitmap, AnswersEveryReadError) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.write_file(kIncr, image(pattern(1))), 0);
  for (u64 nth = 1; nth <= 5; ++nth) {
    sim.fail_nth(Fault::FileRead, nth, -ENXIO);
    expect_distrust(sim, filter, -ENXIO, "");
    EXPECT_TRUE(sim.fault_reached(Fault::FileRead));
  }
  ASSERT_EQ(snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR), 0);
  EXPECT_EQ(filter.incr(), pattern(1));
}

SIM_TEST(LoadBitmap, WithoutMemoryTheBitmapIsLeft) {
  BareFilter filter(sim, kExtents);
  filter.fill(0x5A, 0);
  sim.fail_nth(Fault::Virt, 1);
  EXPECT_EQ(snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_block_load_bmp(): Failed to allocate 125 bytes.", 3), 1);
  EXPECT_EQ(filter.incr(), Bytes(kBytes, 0x5A));
  EXPECT_EQ(filter.incr_dirty(), 0);
}

SIM_TEST(LoadBitmaps, LoadsBothAndAnswersTheIncrementals) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.write_file(kDiff, image(pattern(2))), 0);
  EXPECT_EQ(snbf_block_load_bmps(*filter.node), -EIO);
  EXPECT_TRUE(sim.log().contains("snbf_block_load_bmps(): Loading incr/diff bitmaps"));
  EXPECT_EQ(filter.diff(), pattern(2));
  ASSERT_EQ(sim.write_file(kIncr, image(pattern(1))), 0);
  EXPECT_EQ(snbf_block_load_bmps(*filter.node), 0);
}

SIM_TEST(DirtyFlag, CutsTheFileDownToItself) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
  ASSERT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 5), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_block_write_dirty_flag(): Writing dirty flag 5 into "
                         "Incremental bitmap of snbf(100, 3)"));
  EXPECT_EQ(contents(sim, kIncr), (Bytes{'S', 'N', 'B', 'F', 'B', 'M', 'P', 1}));
  EXPECT_EQ(filter.incr_dirty(), 0);  // the flag in memory is another matter
}

SIM_TEST(DirtyFlag, LoweringItKeepsTheRest) {
  BareFilter filter(sim, kExtents);
  ASSERT_EQ(sim.write_file(kIncr, image(pattern(1), 1)), 0);
  ASSERT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 0), 0);
  EXPECT_EQ(contents(sim, kIncr), image(pattern(1)));
  EXPECT_TRUE(
      sim.log().contains("snbf_kill_dirty_requests(): Killing all dirty requests for "
                         "Incremental bitmap of snbf(100, 3)"));
}

SIM_TEST(DirtyFlag, AnswersWhatFails) {
  BareFilter filter(sim, kExtents);
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  EXPECT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 1), -EIO);
  for (u64 nth : {1, 2}) {
    sim.fail_nth(Fault::FileWrite, nth, -ENOSPC);
    EXPECT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 1), -ENOSPC);
  }
}

SIM_TEST(LoadAndSaveCommands, CheckAndAnswer) {
  BareFilter filter(sim, kExtents);
  set_incr(filter, pattern(3));
  snbf_bmp_sel sel = {3, SNBF_BMP_INCR};
  // Dirty or not.
  ASSERT_EQ(snbf_ioctl_save_bmp(*filter.node, sel), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_ioctl_save_bmp(): Saving Incremental bitmap of snbf(100, 3)"));
  EXPECT_EQ(contents(sim, kIncr), image(pattern(3)));
  filter.fill(0, 0);
  ASSERT_EQ(snbf_ioctl_load_bmp(*filter.node, sel), 0);
  EXPECT_TRUE(
      sim.log().contains("snbf_ioctl_load_bmp(): Loading Incremental bitmap of snbf(100, 3)"));
  EXPECT_EQ(filter.incr(), pattern(3));
  sel.type = SNBF_BMP_DIFF;
  EXPECT_EQ(snbf_ioctl_load_bmp(*filter.node, sel), -EIO);

  sel.type = 2;
  sim.log().clear();
  EXPECT_EQ(snbf_ioctl_load_bmp(*filter.node, sel), -EINVAL);
  EXPECT_EQ(snbf_ioctl_save_bmp(*filter.node, sel), -EINVAL);
  EXPECT_TRUE(sim.log().contains("snbf_ioctl_load_bmp(): Loading Unknown bitmap"));
  EXPECT_EQ(sim.log().count("(): Invalid bitmap type 2 (should be either 1 or 0)", 3), 2);
  filter.node->dev_type = kSnapNode;
  EXPECT_EQ(snbf_ioctl_load_bmp(*filter.node, sel), -EINVAL);
  EXPECT_EQ(snbf_ioctl_save_bmp(*filter.node, sel), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_ioctl_load_bmp(): snbf(100, 3) is not a filter device", 3), 1);
  EXPECT_EQ(sim.log().count("snbf_ioctl_save_bmp(): snbf(100, 3) is not a filter device", 3), 1);
  filter.node->dev_type = kFilterNode;
}

// Power goes while a bitmap is saved over another and then flagged. What a load accepts afterwards
// is one of the two that were whole in the file; anything else comes out as all ones.
TEST(BitmapFilePowerCut, ALoadAcceptsOnlyWhatWasWhole) {
  for_seeds(80, [](u64 seed) {
    Images images;
    const bool raises = seed % 2 == 0;
    {
      Sim sim({.seed = seed});
      Device* disk = sim.add_device({.name = "sda1"});
      FileSystem* fs = sim.add_fs("root", disk->number());
      bool saved_first = false;
      sim.spawn("agent", [&] {
        sim.make_dir("/var");
        sim.make_dir("/var/bmp");
        ASSERT_EQ(sim.mount(fs, "/var/bmp"), 0);
        BareFilter filter(sim, kExtents);
        set_incr(filter, pattern(1));
        ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
        saved_first = true;
        sim.power_cut_at_us(sim.now_us() + sim.random(4000));
        if (raises) {
          EXPECT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 1), 0);
        } else {
          set_incr(filter, pattern(2));
          EXPECT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
        }
        sim.sleep_us(10'000);
      });
      ASSERT_EQ(sim.run(), RunEnd::PowerCut);
      ASSERT_TRUE(saved_first);
      images = sim.take_images();
    }
    Sim sim({.seed = seed, .images = &images});
    ASSERT_EQ(sim.run([&] {
      sim.make_dir("/var");
      sim.make_dir("/var/bmp");
      ASSERT_EQ(sim.mount(sim.fs("root"), "/var/bmp"), 0);
      {
        BareFilter filter(sim, kExtents);
        snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR);
        const Bytes now = filter.incr();
        EXPECT_TRUE(now == pattern(1) || (!raises && now == pattern(2)) ||
                    (now == Bytes(kBytes, 0xFF) && filter.incr_dirty() == 1))
            << "seed " << seed;
      }
      ASSERT_EQ(sim.unmount(sim.fs("root")), 0);
    }),
              RunEnd::Done);
  });
}

// Once save or dirty-flag write has answered, its file is on disk.
TEST(BitmapFilePowerCut, WhatWasAnsweredIsOnDisk) {
  for_seeds(40, [](u64 seed) {
    Images images;
    const bool raises = seed % 2 == 0;
    {
      Sim sim({.seed = seed});
      Device* disk = sim.add_device({.name = "sda1"});
      FileSystem* fs = sim.add_fs("root", disk->number());
      sim.spawn("agent", [&] {
        sim.make_dir("/var");
        sim.make_dir("/var/bmp");
        ASSERT_EQ(sim.mount(fs, "/var/bmp"), 0);
        BareFilter filter(sim, kExtents);
        set_incr(filter, pattern(1));
        ASSERT_EQ(snbf_block_save_bmp(*filter.node, SNBF_BMP_INCR), 0);
        if (raises) {
          ASSERT_EQ(snbf_block_write_dirty_flag(*filter.node, SNBF_BMP_INCR, 1), 0);
        }
        sim.power_cut();
      });
      ASSERT_EQ(sim.run(), RunEnd::PowerCut);
      images = sim.take_images();
    }
    Sim sim({.seed = seed, .images = &images});
    ASSERT_EQ(sim.run([&] {
      sim.make_dir("/var");
      sim.make_dir("/var/bmp");
      ASSERT_EQ(sim.mount(sim.fs("root"), "/var/bmp"), 0);
      {
        BareFilter filter(sim, kExtents);
        EXPECT_EQ(snbf_block_load_bmp(*filter.node, SNBF_BMP_INCR), 0);
        EXPECT_EQ(filter.incr(), raises ? Bytes(kBytes, 0xFF) : pattern(1)) << "seed " << seed;
        EXPECT_EQ(sim.log().count("is dirty. Ignoring file contents.", 3), raises ? 1 : 0);
      }
      ASSERT_EQ(sim.unmount(sim.fs("root")), 0);
    }),
              RunEnd::Done);
  });
}

}  // namespace
}  // namespace snbf::sim
