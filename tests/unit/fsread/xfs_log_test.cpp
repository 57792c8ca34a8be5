// Which logs of an XFS leave its free-space trees believable.
#include "fsread/xfs_log.h"

#include "fsread/xfs5_reader.h"
#include "parts_rig.h"
#include "xfs_log_image.h"

namespace snbf::sim {
namespace {

constexpr u32 kBlock = 512;
constexpr u64 kLogAt = 64;  // blocks

Bytes super_with(u64 log_start, u64 log_blocks, u32 version = 5, u32 sector_size = 512) {
  Bytes super(512);
  put_be(super, 0, 0x58465342, 4);
  put_be(super, 4, kBlock, 4);
  put_be(super, 48, log_start, 8);
  put_be(super, 84, 1 << 20, 4);
  put_be(super, 96, log_blocks, 4);
  put_be(super, 100, version, 2);
  put_be(super, 102, sector_size, 2);
  super[124] = 20;
  return super;
}

struct OnDevice {
  OnDevice(Sim& sim, const Bytes& super, const Bytes& log)
      : disk(sim, {.name = "sd" + std::to_string(sim.random()),
                   .bytes = (log.size() + kLogAt * kBlock + 4095) & ~u64{4095}}) {
    disk.device->poke(0, super);
    disk.device->poke(kLogAt, log);
  }
  // Null, or what stands against it.
  std::string verdict() {
    Bytes head = disk.device->peek(0, 512);
    const char* why = judge_xfs_log(disk.bdev, xfs_super_at(head.data()));
    return why == nullptr ? "clean" : why;
  }

  OpenDevice disk;
};

std::string verdict_of(Sim& sim, const Bytes& log, u32 sector_size = 512) {
  return OnDevice(sim, super_with(kLogAt, log.size() / kBlock, 5, sector_size), log).verdict();
}
std::string verdict_of(Sim& sim, const XfsLogImage& log, u32 sector_size = 512) {
  return verdict_of(sim, log.bytes, sector_size);
}

constexpr const char* kClean = "clean";
constexpr const char* kPending = "a log that is not replayed";
constexpr const char* kUnclear = "a log that is not understood";

// A log that was at work before, up to about `sector` of its n-th round.
XfsLogImage used_log(u32 sectors, u32 round, u32 sector) {
  XfsLogImage log(sectors, round);
  while (log.head() + 10 < sector) log.add(LogBody::work());
  return log;
}

SIM_TEST_SEEDS(XfsLog, EndsWithAnUnmount, 1) {
  for (u32 round : {1u, 2u, 9u}) {
    for (u32 sector : {0u, 100u, 8000u, 16380u}) {
      XfsLogImage log = used_log(16384, round, sector);
      EXPECT_EQ(verdict_of(sim, log), sector == 0 ? kUnclear : kPending) << round << " " << sector;
      log.add(LogBody::unmount());
      EXPECT_EQ(verdict_of(sim, log), kClean) << round << " " << sector;
      log.add(LogBody::work());
      EXPECT_EQ(verdict_of(sim, log), kPending) << round << " " << sector;
    }
  }
}

SIM_TEST_SEEDS(XfsLog, IsCovered, 1) {
  XfsLogImage log = used_log(16384, 3, 5000);
  const u64 work = log.add(LogBody::work());
  XfsLogImage half = log;
  // Recovery would begin with the work.
  const u64 first = half.add(LogBody::superblock(), work);
  EXPECT_EQ(verdict_of(sim, half), kPending);
  XfsLogImage other = half;
  half.add(LogBody::superblock(), first);
  EXPECT_EQ(verdict_of(sim, half), kClean);
  half.add(LogBody::work(), first);
  EXPECT_EQ(verdict_of(sim, half), kPending);
  // Straight behind an unmount one is enough.
  log.add(LogBody::unmount());
  log.add(LogBody::superblock());
  EXPECT_EQ(verdict_of(sim, log), kClean);
  // A tail that is no record's beginning, or not in the log.
  for (u64 tail : {first + 1, first - (u64{1} << 32), first + 16384, u64{0}}) {
    XfsLogImage wrong = other;
    wrong.add(LogBody::superblock(), tail);
    EXPECT_NE(verdict_of(sim, wrong), kClean) << tail;
  }
}

SIM_TEST_SEEDS(XfsLog, HoldsNothingButTheSuperblock, 1) {
  auto of = [&](const LogBody& body, u32 sector_size = 512) {
    XfsLogImage log = used_log(16384, 1, 300);
    log.add(body);
    return verdict_of(sim, log, sector_size);
  };
  EXPECT_EQ(of(LogBody::superblock()), kClean);
  EXPECT_EQ(of(LogBody{}.begin().buffer(0, 8).commit(), 4096), kClean);
  EXPECT_EQ(of(LogBody{}.begin().buffer(0, 1).commit().begin().buffer(0, 1).commit()), kClean);
  EXPECT_EQ(of(LogBody{}.begin().buffer(0, 1, 3).buffer(0, 1).commit()), kClean);
  const LogBody not_clean[] = {
      LogBody{}.begin().buffer(0, 2).commit(),               // with the AG's header behind it
      LogBody{}.begin().buffer(1, 1).commit(),               // another place
      LogBody{}.begin().buffer(u64{1} << 40, 1).commit(),    // far away
      LogBody{}.begin().buffer(0, 1, 2, 0x123B).commit(),    // an inode
      LogBody{}.begin().buffer(0, 1, 0).commit(),            // of no region, not even itself
      LogBody{}.begin().buffer(0, 1).buffer(1, 1).commit(),  // and more
      LogBody{}.begin().buffer(0, 1),                        // goes on in another record
      LogBody{}.begin().op(0x69, 0, Bytes(20)).commit(),     // no item
      LogBody{}.begin().op(0x69, 0, Bytes(4)).commit(),      // too short for one
      LogBody{}.op(0x69, 1).buffer(0, 1).commit(),           // no header
      LogBody{}.op(0x69, 1).op(0x69, 0, Bytes(16)).commit(),
      LogBody{}.op(0x69, 1).commit(),
      LogBody{}.begin().op(0x69, 0x4, Bytes(24)).commit(),  // continued
      LogBody{}.begin().op(0xAA, 0).commit(),               // somebody else's
      LogBody{}.buffer(0, 1),
      LogBody{}.commit(),
      LogBody{}.begin().begin().buffer(0, 1).commit().commit(),
  };
  for (const LogBody& body : not_clean) EXPECT_EQ(of(body), kPending) << &body - not_clean;
  // An item that promises more regions than there are, and operations that overrun the record.
  LogBody body = LogBody{}.begin().buffer(0, 1);
  body.bytes[40 + 12 + 2] = 9;
  EXPECT_EQ(of(body.commit()), kPending);
  body = LogBody::superblock();
  body.ops += 200;
  EXPECT_EQ(of(body), kPending);
  body = LogBody::superblock();
  put_be(body.bytes, 40 + 4, 0xFFFFFFF0, 4);
  EXPECT_EQ(of(body), kPending);
}

SIM_TEST_SEEDS(XfsLog, RecordsThatCameOutOfOrderAreSeen, 1) {
  XfsLogImage log = used_log(16384, 4, 9000);
  const XfsLogImage before = log;
  const u32 lost = log.head();
  log.add(LogBody::work());
  const u32 behind = log.head();
  for (int n = 0; n < 200; ++n) log.add(LogBody::work());
  log.add(LogBody::unmount());
  ASSERT_EQ(verdict_of(sim, log), kClean);
  ASSERT_LT(log.head() - lost, 4096u);
  std::copy_n(before.bytes.begin() + lost * 512, (behind - lost) * 512,
              log.bytes.begin() + lost * 512);
  EXPECT_EQ(verdict_of(sim, log), kPending);
  // The same where blanks stand for the lost.
  for (u32 n = lost; n < behind; ++n) put_be(log.bytes, u64{n} * 512, 0, 4);
  EXPECT_EQ(verdict_of(sim, log), kPending);
}

SIM_TEST_SEEDS(XfsLog, ARecordIsWhole, 1) {
  XfsLogImage log = used_log(16384, 2, 4000);
  const u32 at = log.head() * 512;
  log.add(LogBody::unmount());
  // By what stands in it, where a tool has left the checksum out; or by the checksum.
  auto with = [&](u32 offset, u64 value, int width, bool has_checksum = false) {
    XfsLogImage changed = log;
    if (!has_checksum) put_be(changed.bytes, at + 32, 0, 4);
    put_be(changed.bytes, at + offset, value, width);
    return verdict_of(sim, changed);
  };
  EXPECT_EQ(with(0, 0xFEEDBABE, 4), kClean);
  EXPECT_EQ(with(8, 3, 4), kUnclear);
  EXPECT_EQ(with(8, 0, 4), kUnclear);
  EXPECT_EQ(with(12, 0, 4), kUnclear);
  EXPECT_EQ(with(12, 1024, 4), kUnclear);  // longer than it is
  EXPECT_EQ(with(12, 0x80000000, 4), kUnclear);
  EXPECT_EQ(with(23, 1, 1), kUnclear);
  EXPECT_EQ(with(36, 5, 4), kClean);
  EXPECT_EQ(with(36, 5, 4, true), kUnclear);
  EXPECT_EQ(with(512 + 30, 1, 1, true), kUnclear);
  EXPECT_EQ(with(40, 2, 4), kPending);
  EXPECT_EQ(with(300, 2, 4), kUnclear);
  EXPECT_EQ(with(320, 0, 4), kUnclear);
  EXPECT_EQ(with(320, 0x7FFFFFFF, 4), kUnclear);
  EXPECT_EQ(with(4, 7, 4), kPending);
  // Half of one has come, and nothing that could tell but its length.
  LogBody large = LogBody::unmount();
  large.bytes.resize(5000);
  const XfsLogImage before = log;
  const u32 next = log.head();
  log.add(large, XfsLogImage::kSelf, {.has_checksum = false});
  EXPECT_EQ(verdict_of(sim, log), kClean);
  std::copy(before.bytes.begin() + (next + 5) * 512, before.bytes.end(),
            log.bytes.begin() + (next + 5) * 512);
  EXPECT_EQ(verdict_of(sim, log), kUnclear);
}

SIM_TEST_SEEDS(XfsLog, OfAnyRecordSizeAndVersion, 1) {
  for (u32 size_max : {16384u, 32768u, 65536u, 262144u}) {
    XfsLogImage log(16384, 1);
    const XfsLogImage::Options options = {.size_max = size_max};
    for (int n = 0; n < 40; ++n) {
      log.add(LogBody::work(size_max / 33 * 32 - 4096), XfsLogImage::kSelf, options);
    }
    EXPECT_EQ(verdict_of(sim, log), kPending);
    LogBody large = LogBody::superblock();
    while (large.bytes.size() + 20000 < size_max) large.begin().buffer(0, 1, 9).commit();
    log.add(large, XfsLogImage::kSelf, options);
    EXPECT_EQ(verdict_of(sim, log), kClean) << size_max;
    log.add(LogBody::unmount(), XfsLogImage::kSelf, options);
    EXPECT_EQ(verdict_of(sim, log), kClean) << size_max;
  }
  XfsLogImage old(16384, 1);
  old.add(LogBody::superblock(), XfsLogImage::kSelf, {.version = 1, .has_checksum = false});
  EXPECT_EQ(verdict_of(sim, old), kClean);
}

// Against a model: the last record is an unmount's, or all from its tail on change the superblock
// alone.
SIM_TEST_SEEDS(XfsLog, AnyHistory, 8) {
  for (int trial = 0; trial < 12; ++trial) {
    const u32 sectors = 64 + static_cast<u32>(sim.random(trial % 3 == 0 ? 12000 : 200));
    XfsLogImage log(sectors, 1 + static_cast<u32>(sim.random(3)));
    std::vector<u64> lately;  // records that are only the superblock's, without a gap
    bool is_clean = false;
    const u64 records = 1 + sim.random(sectors / 3);
    for (u64 n = 0; n < records; ++n) {
      switch (sim.random(4)) {
        case 0:
          log.add(LogBody::unmount());
          lately.clear();
          is_clean = true;
          break;
        case 1:
          log.add(LogBody::work(static_cast<u32>(sim.random(4000))));
          lately.clear();
          is_clean = false;
          break;
        default:
          if (lately.size() > 2) lately.erase(lately.begin());
          is_clean = sim.random(4) != 0;
          const u64 tail = is_clean && !lately.empty() ? lately[sim.random(lately.size())] : 0;
          if (is_clean) {
            lately.push_back(log.add(LogBody::superblock(), tail != 0 ? tail : XfsLogImage::kSelf));
          } else {
            log.add(LogBody::superblock(), 0);
            lately.clear();
          }
          break;
      }
    }
    const std::string found = verdict_of(sim, log);
    EXPECT_EQ(found == kClean, is_clean)
        << found << ": " << sectors << " sectors, head " << log.head();
  }
}

SIM_TEST_SEEDS(XfsLog, ThatIsNotThere, 1) {
  const XfsLogImage log(1000, 1);
  auto of = [&](u64 start, u64 blocks) {
    return OnDevice(sim, super_with(start, blocks), log.bytes).verdict();
  };
  EXPECT_EQ(of(kLogAt, 1000), kUnclear);  // nothing was ever written
  EXPECT_EQ(of(0, 1000), "a log on another device");
  for (u64 start : {u64{1} << 20, u64{0xFFFFFFFFFFFFFFFF}, kLogAt + 100}) {
    EXPECT_EQ(of(start, 1000), "a log that cannot be read") << start;
  }
  for (u64 blocks : {u64{0}, u64{1}, u64{1100}, u64{0xFFFFFFFF}}) {
    EXPECT_EQ(of(kLogAt, blocks), "a log that cannot be read") << blocks;
  }
  Bytes super = super_with(kLogAt, 1000);
  put_be(super, 4, 513, 4);
  EXPECT_EQ(OnDevice(sim, super, log.bytes).verdict(), "a log that cannot be read");
  // An AG whose number in blocks wraps to 0.
  super = super_with(kLogAt | u64{1} << 63, 1000);
  put_be(super, 84, 1 << 21, 4);
  EXPECT_EQ(OnDevice(sim, super, log.bytes).verdict(), "a log that cannot be read");
  super = super_with(kLogAt, 1000);
  super[124] = 64;
  EXPECT_EQ(OnDevice(sim, super, log.bytes).verdict(), "a log that cannot be read");
}

// As a tool leaves it that changes the identity of a file system.
SIM_TEST_SEEDS(XfsLog, MayHaveBlanksBehindItsFirstRecord, 1) {
  XfsLogImage log(16384, 2);
  log.add(LogBody::unmount());
  for (u64 n = log.head(); n < 512; ++n) put_be(log.bytes, n * 512, 0, 4);
  EXPECT_EQ(verdict_of(sim, log), kClean);
  XfsLogImage more = log;
  more.add(LogBody::work());
  EXPECT_EQ(verdict_of(sim, more), kPending);
  put_be(log.bytes, u64{300} * 512, 2, 4);
  EXPECT_EQ(verdict_of(sim, log), kPending);
}

SIM_TEST_SEEDS(XfsClaim, IsNobodysWhileTheLogIsNotReplayed, 1) {
  LoggedParts parts(1);
  XfsLogImage log = used_log(2000, 1, 100);
  const u64 work = log.add(LogBody::work());
  for (u32 version : {4u, 5u}) {
    OnDevice dirty(sim, super_with(kLogAt, 2000, version), log.bytes);
    EXPECT_EQ(xfs5_reader_claim(dirty.disk.bdev), Claim::Nobodys);
    XfsLogImage covered = log;
    const u64 first = covered.add(LogBody::superblock(), work);
    covered.add(LogBody::superblock(), first);
    OnDevice clean(sim, super_with(kLogAt, 2000, version), covered.bytes);
    EXPECT_EQ(xfs5_reader_claim(clean.disk.bdev), version == 4 ? Claim::NotMine : Claim::Mine);
  }
  EXPECT_EQ(sim.log().count(" has a log that is not replayed (features 0x0, 0x0): no reader claims"
                            " it",
                            6),
            2);
}

SIM_TEST_SEEDS(XfsLog, EveryReadAndAllocationMayFail, 1) {
  XfsLogImage log = used_log(6000, 2, 5000);
  log.add(LogBody::superblock());
  OnDevice device(sim, super_with(kLogAt, 6000), log.bytes);
  ASSERT_EQ(device.verdict(), kClean);
  for (u32 sector : {0u, 5999u, 3000u, log.head() - 1, log.head() - 3000}) {
    device.disk.device->fail_range(kLogAt + sector, 1, Op::Read, -EIO);
    EXPECT_EQ(device.verdict(), "a log that cannot be read") << sector;
    device.disk.device->clear_failures();
  }
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    const std::string found = device.verdict();
                    if (sim.fault_reached(Fault::AnyAllocation)) {
                      EXPECT_EQ(found, "a log that cannot be read");
                    }
                  });
       nth += 1 + nth / 4) {
  }
  EXPECT_GT(nth, 20);
}

}  // namespace
}  // namespace snbf::sim
