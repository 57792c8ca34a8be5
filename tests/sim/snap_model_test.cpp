// The model of images must see what it is there for.
#include "snap_model.h"

#include <gtest/gtest.h>

#include "ext_map.h"

namespace snbf::model {
namespace {

std::vector<u8> zeroes(u64 sectors) { return std::vector<u8>(sectors * kSectorBytes); }

class SnapModel : public testing::Test {
 protected:
  WriteTicket written(u64 sector, u64 sectors, bool zero = false) {
    const WriteTicket ticket = partition_.send(sector, sectors, zero);
    partition_.end(ticket, true);
    return ticket;
  }
  std::vector<u8> of(const WriteTicket& ticket, u64 skipped = 0, u64 sectors = 1) {
    const std::vector<u8> all = partition_.data(ticket);
    return {all.begin() + static_cast<long>(skipped * kSectorBytes),
            all.begin() + static_cast<long>((skipped + sectors) * kSectorBytes)};
  }
  std::vector<u8> initial(u64 sector) {
    const std::vector<u8> all = partition_.initial();
    return {all.begin() + static_cast<long>(sector * kSectorBytes),
            all.begin() + static_cast<long>((sector + 1) * kSectorBytes)};
  }

  Partition partition_{64};
};

TEST_F(SnapModel, ALostWriteIsSeen) {
  const u64 before = partition_.now();
  const WriteTicket first = written(8, 8);
  EXPECT_EQ(partition_.check_read(8, of(first, 0, 8), partition_.now()), "");
  EXPECT_EQ(partition_.check_read(8, initial(8), before), "");
  EXPECT_NE(partition_.check_read(8, initial(8), partition_.now()), "");
  written(8, 8);
  EXPECT_NE(partition_.check_read(8, of(first), partition_.now()), "");
}

TEST_F(SnapModel, ForeignBytesAreSeen) {
  const WriteTicket first = written(8, 8);
  EXPECT_NE(partition_.check_read(9, of(first, 2), partition_.now()), "");
  std::vector<u8> torn = of(first);
  torn[511] ^= 1;
  EXPECT_NE(partition_.check_read(8, torn, partition_.now()), "");
  EXPECT_NE(partition_.check_read(8, zeroes(1), partition_.now()), "");
  written(8, 1, true);
  EXPECT_EQ(partition_.check_read(8, zeroes(1), partition_.now()), "");
}

TEST_F(SnapModel, AnImageHoldsWhatEndedBeforeAndNothingSentAfter) {
  const WriteTicket before = written(0, 1);
  SnapImage image(partition_);
  image.started();
  const WriteTicket after = written(0, 1);
  EXPECT_NE(SnapImage(image).check_read(0, initial(0)), "");
  EXPECT_NE(SnapImage(image).check_read(0, of(after)), "");
  EXPECT_EQ(image.check_read(0, of(before)), "");
}

TEST_F(SnapModel, AWriteBesideTheStartIsFreeButFixed) {
  const WriteTicket beside = partition_.send(0, 1, false);
  SnapImage image(partition_);
  image.started();
  partition_.end(beside, true);
  SnapImage with = image, without = image;
  EXPECT_EQ(with.check_read(0, of(beside)), "");
  EXPECT_EQ(without.check_read(0, initial(0)), "");
  EXPECT_NE(with.check_read(0, initial(0)), "");
  EXPECT_NE(without.check_read(0, of(beside)), "");
}

TEST_F(SnapModel, AWriteThatFailedMayBeThereInPart) {
  const WriteTicket torn = partition_.send(0, 2, false);
  partition_.end(torn, false, true);
  SnapImage image(partition_);
  image.started();
  EXPECT_TRUE(partition_.shows(torn, 0, of(torn)));
  EXPECT_FALSE(partition_.shows(torn, 0, initial(0)));
  EXPECT_EQ(image.check_read(0, of(torn)), "");
  EXPECT_EQ(image.check_read(1, initial(1)), "");
  EXPECT_EQ(image.check_instant(), "");
  const WriteTicket later = partition_.send(0, 2, false);
  partition_.end(later, false, true);
  EXPECT_NE(image.check_read(0, of(later)), "");
  EXPECT_NE(SnapImage(image).check_read(0, of(later)), "");
}

TEST_F(SnapModel, WhatAFailedWriteLeftIsReplacedByTheNext) {
  const WriteTicket torn = partition_.send(0, 2, false);
  partition_.end(torn, false, true);
  SnapImage between(partition_);
  EXPECT_EQ(partition_.check_read(0, of(torn), partition_.now()), "");
  const u64 sent = partition_.now();
  const WriteTicket next = written(0, 2);
  EXPECT_EQ(partition_.check_read(0, of(torn), sent), "");
  EXPECT_NE(partition_.check_read(0, of(torn), partition_.now()), "");
  EXPECT_EQ(partition_.check_read(0, of(next), partition_.now()), "");
  SnapImage behind(partition_);
  behind.started();
  EXPECT_NE(behind.check_read(0, of(torn)), "");
  between.started();
  EXPECT_EQ(between.check_read(0, of(torn)), "");
  EXPECT_EQ(between.check_read(1, of(next, 1)), "");
  EXPECT_NE(between.check_instant(), "");
}

TEST_F(SnapModel, AFailedWriteThatRanBesideTheNextMayOutliveIt) {
  const WriteTicket torn = partition_.send(0, 1, false);
  written(0, 1);
  partition_.end(torn, false, true);
  EXPECT_EQ(partition_.check_read(0, of(torn), partition_.now()), "");
  EXPECT_NE(partition_.check_read(0, initial(0), partition_.now()), "");
}

TEST_F(SnapModel, WhatAFailedWriteLeftIsNotKeptBehindADurableOne) {
  const WriteTicket torn = partition_.send(0, 1, false);
  partition_.end(torn, false, true);
  const WriteTicket next = written(0, 1);
  u64 kept = 0;
  EXPECT_EQ(partition_.check_kept(0, of(torn), &kept), "");
  partition_.flushed(partition_.now());
  EXPECT_NE(partition_.check_kept(0, of(torn), &kept), "");
  EXPECT_EQ(partition_.check_kept(0, of(next), &kept), "");
}

TEST_F(SnapModel, AWriteThatFailedWholeHasPutNothingThere) {
  SnapImage image(partition_);
  const WriteTicket failed = partition_.send(0, 2, false);
  EXPECT_EQ(partition_.check_read(0, of(failed), partition_.now()), "");
  partition_.end(failed, false);
  const WriteTicket discard = partition_.send(0, 1, true);
  partition_.end(discard, false);
  image.started();
  SnapImage before = image;
  u64 kept = 0;
  EXPECT_NE(partition_.check_read(0, of(failed), partition_.now()), "");
  EXPECT_NE(partition_.check_read(0, zeroes(1), partition_.now()), "");
  EXPECT_NE(partition_.check_kept(0, of(failed), &kept), "");
  EXPECT_NE(image.check_read(0, of(failed)), "");
  EXPECT_EQ(before.check_read(0, initial(0)), "");
}

TEST_F(SnapModel, ADiscardThatFailedIsShownByZeroesOfItsOwn) {
  const WriteTicket torn = partition_.send(0, 2, true);
  partition_.end(torn, false, true);
  EXPECT_TRUE(partition_.shows(torn, 0, zeroes(2)));
  const WriteTicket other = partition_.send(0, 2, true);
  EXPECT_FALSE(partition_.shows(torn, 0, zeroes(2)));
  EXPECT_FALSE(partition_.shows(other, 0, zeroes(2)));
}

TEST_F(SnapModel, AWriteBesideTheStartIsWholeInTheImage) {
  const WriteTicket beside = partition_.send(0, 2, false);
  SnapImage image(partition_);
  image.started();
  partition_.end(beside, true);
  EXPECT_EQ(image.check_read(0, of(beside)), "");
  EXPECT_EQ(image.check_read(1, initial(1)), "");
  EXPECT_NE(image.check_instant(), "");
}

TEST_F(SnapModel, AnImageIsOfOneInstant) {
  SnapImage image(partition_);
  const WriteTicket first = written(0, 1);
  const WriteTicket second = written(5, 1);
  image.started();
  SnapImage both = image, neither = image, only_first = image;
  EXPECT_EQ(both.check_read(0, of(first)) + both.check_read(5, of(second)), "");
  EXPECT_EQ(both.check_instant(), "");
  EXPECT_EQ(neither.check_read(0, initial(0)) + neither.check_read(5, initial(5)), "");
  EXPECT_EQ(neither.check_instant(), "");
  EXPECT_EQ(only_first.check_read(0, of(first)) + only_first.check_read(5, initial(5)), "");
  EXPECT_EQ(only_first.check_instant(), "");
  EXPECT_EQ(image.check_read(0, initial(0)) + image.check_read(5, of(second)), "");
  EXPECT_NE(image.check_instant(), "");
}

TEST_F(SnapModel, WhatIsUnknownMustStayTheSame) {
  SnapImage image(partition_);
  EXPECT_EQ(image.check_same(3, zeroes(2)), "");
  EXPECT_EQ(image.check_same(4, zeroes(1)), "");
  EXPECT_NE(image.check_same(4, initial(4)), "");
}

TEST_F(SnapModel, AFreeChunkMayHoldAnyWriteButNothingElse) {
  const WriteTicket before = written(8, 8);
  SnapImage image(partition_);
  image.started();
  image.promise_only({true, false, true, true, true, true, true, true}, 8);
  const WriteTicket after = written(8, 9);
  EXPECT_EQ(image.check_read(8, of(before, 0, 8)), "");
  EXPECT_EQ(image.check_read(8, of(after, 0, 8)), "");
  EXPECT_NE(image.check_read(16, of(after, 8)), "") << "the next chunk is not free";
  EXPECT_NE(image.check_read(8, of(after, 1)), "") << "another sector's";
  EXPECT_NE(image.check_read(8, zeroes(1)), "");
  written(8, 1, true);
  EXPECT_EQ(image.check_read(8, zeroes(1)), "");
}

TEST_F(SnapModel, WhatAFileSystemWritesIsKnownByItsMark) {
  partition_.lay_out(4, zeroes(2));
  const WriteTicket first = partition_.send_own(4, std::vector<u8>(1024, 7));
  partition_.end(first, true);
  EXPECT_EQ(partition_.check_read(4, of(first, 0, 2), partition_.now()), "");
  EXPECT_NE(partition_.check_read(5, of(first), partition_.now()), "");
  EXPECT_NE(partition_.check_read(4, initial(4), partition_.now()), "");
  std::vector<u8> torn = of(first);
  torn[0] ^= 1;
  EXPECT_NE(partition_.check_read(4, torn, partition_.now()), "");
  SnapImage image(partition_);
  image.started();
  const WriteTicket second = partition_.send_own(4, std::vector<u8>(1024, 7));
  partition_.end(second, true);
  EXPECT_NE(SnapImage(image).check_read(4, of(second)), "")
      << "the same bytes, but of a later write";
  EXPECT_EQ(image.check_read(4, of(first)), "");
}

TEST(ExtMap, SaysWhichChunksHoldUsedBlocks) {
  for (const bool small_groups : {false, true}) {
    ExtMap map((700 << 10) + 512, small_groups);
    map.set(0, 700, false);  // but for the metadata
    map.set(11, 1, true);
    map.set(256, 1, true);
    map.set(699, 1, true);
    Partition partition(1401);
    partition.lay_out(ExtMap::kMapSector, map.map());
    std::vector<u8> bytes = partition.initial();  // with their marks
    bytes.erase(bytes.begin(), bytes.begin() + ExtMap::kMapSector * kSectorBytes);
    const std::vector<bool> chunks = map.used_chunks(bytes, 4096);
    const u64 own = (map.end_sector() + 7) / 8;
    ASSERT_EQ(chunks.size(), 176u);
    for (u64 chunk = 0; chunk < chunks.size(); ++chunk) {
      const bool is_tail = small_groups && chunk == 175;
      EXPECT_EQ(chunks[chunk], chunk < own || chunk == 2 || chunk == 64 || chunk == 174 || is_tail)
          << chunk;
    }
    bytes[12] ^= 1;  // a descriptor that its bitmap does not bear out
    EXPECT_TRUE(map.used_chunks(bytes, 4096)[30]);
  }
}

TEST_F(SnapModel, ALargeRequestIsJudgedByThePieces) {
  Partition large(3 * kPieceSectors);
  const WriteTicket ticket = large.send(1, 2 * kPieceSectors + 1, false);
  EXPECT_EQ(ticket.count, 3u);
  large.end(ticket, true);
  EXPECT_EQ(large.check_read(1, large.data(ticket), large.now()), "");
}

TEST_F(SnapModel, OfALargeRequestThatFailedEachPieceMayBeThereWhole) {
  Partition large(2 * kPieceSectors);
  SnapImage image(large);
  const WriteTicket failed = large.send(0, 2 * kPieceSectors, false);
  large.end(failed, false);
  image.started();
  const std::vector<u8> data = large.data(failed), before = large.initial();
  const auto at = [](const std::vector<u8>& bytes, u64 sector) {
    return std::span(bytes).subspan(sector * kSectorBytes, kSectorBytes);
  };
  EXPECT_EQ(image.check_read(0, at(data, 0)), "");
  EXPECT_EQ(image.check_read(kPieceSectors, at(before, kPieceSectors)), "");
  EXPECT_EQ(image.check_instant(), "");
  EXPECT_EQ(image.check_read(1, at(before, 1)), "");
  EXPECT_NE(image.check_instant(), "");
}

}  // namespace
}  // namespace snbf::model
