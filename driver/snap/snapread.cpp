// SPDX-License-Identifier: GPL-2.0-only
#include "snap/snapread.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "util/file.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "kcowd";

// The first from `snap` towards the newer ones that holds a copy of the chunk; null: none, and the
// partition still has it.
SnapNode* find_holder(SnapNode& snap, u64 chunk) {
  for (SnapNode* holder = &snap; holder != nullptr;
       holder = List<SnapNode, BySnapOrder>::next(holder)) {
    if (holder->started.load() == 0 || holder->snap_valid.load() == 0) continue;
    if (snbf_cowbmp_is_set(&holder->cow_bmp, chunk)) return holder;
  }
  return nullptr;
}

// The pieces of a request's memory, cut at the borders of chunks: memory and device need not be aligned
// alike.
class ChunkPieces {
 public:
  ChunkPieces(plat_bio* bio, u32 chunk_shift) : bio_(bio), sector_shift_(chunk_shift - 9) {
    snbf_plat_bio_cursor_init(bio, &cursor_);
  }

  bool next(plat_segment& piece) {
    if (rest_.bytes == 0 && !snbf_plat_bio_next_segment(bio_, &cursor_, &rest_)) return false;
    const u64 border = ((rest_.sector >> sector_shift_) + 1) << sector_shift_;
    const u64 room = (border - rest_.sector) * kSectorBytes;
    piece = rest_;
    if (piece.bytes > room) piece.bytes = static_cast<u32>(room);
    rest_.sector += piece.bytes / kSectorBytes;
    rest_.data = static_cast<u8*>(rest_.data) + piece.bytes;
    rest_.bytes -= piece.bytes;
    return true;
  }

 private:
  plat_bio* bio_;
  u32 sector_shift_;
  plat_bio_cursor cursor_ = {};
  plat_segment rest_ = {};
};

class SnapRead {
 public:
  SnapRead(SnapNode& snap, plat_bio* bio, WorkSet& work) : snap_(snap), bio_(bio), work_(work) {}

  SnapReadResult run();

 private:
  // Of many snaps each is asked. The answer holds for the whole read.
  SnapNode* holder_of(const plat_segment& segment) {
    const u64 chunk = segment.sector >> (snap_.chunk_shift - 9);
    if (chunk != chunk_) {
      holder_ = find_holder(snap_, chunk);
      chunk_ = chunk;
    }
    return holder_;
  }
  int read_from_partition();
  int wait_for_partition(u32 count);
  int read_from_files();
  int read_from_file(SnapNode& holder, const plat_segment& segment);

  SnapNode& snap_;
  plat_bio* bio_;
  WorkSet& work_;
  u64 chunk_ = ~u64{0};  // that was asked for last; no chunk
  SnapNode* holder_ = nullptr;
  bool was_watched_ = false;
};

int SnapRead::wait_for_partition(u32 count) {
  plat_bdev* hdd = snap_.filter_node->hdd_bdev;
  if (work_.read_all(count, hdd)) return 0;
  const plat_devt device = snap_.filter_node->hdd_dev;
  for (u32 i = 0; i < count; ++i) {
    if (snbf_plat_bio_is_uptodate(work_.bios[i])) continue;
    snbf_log(kLogError,
             "%s(): Failed to read %d bytes starting from sector %d from device (%d, %d)", kOrigin,
             static_cast<int>(work_.slices[i].bytes), static_cast<int>(work_.slices[i].first),
             static_cast<int>(dev_major(device)), static_cast<int>(dev_minor(device)));
  }
  return -EIO;
}

// Straight into the read's memory, as many at once as there are requests.
int SnapRead::read_from_partition() {
  ChunkPieces pieces{bio_, snap_.chunk_shift};
  plat_segment segment;
  u32 count = 0;
  while (pieces.next(segment)) {
    if (holder_of(segment) != nullptr) continue;
    snbf_plat_bio_set_page(work_.bios[count], 0, segment.sector, segment.data, segment.bytes);
    work_.slices[count] = {segment.sector, segment.bytes};
    if (++count < kGroupPages) continue;
    if (int rc = wait_for_partition(count); rc != 0) return rc;
    count = 0;
  }
  return wait_for_partition(count);
}

int SnapRead::read_from_file(SnapNode& holder, const plat_segment& segment) {
  StallGate& gate = snap_.filter_node->cowthread.gate;
  const int bytes = static_cast<int>(segment.bytes);
  gate.begin_file_operation(holder.minor);
  const int rc = snbf_fread(holder.cow_data_file, segment.sector * kSectorBytes, work_.bounce, bytes);
  if (gate.end_file_operation()) was_watched_ = true;
  if (rc != bytes) return -EIO;
  mem_copy(segment.data, work_.bounce, segment.bytes);
  return 0;
}

int SnapRead::read_from_files() {
  ChunkPieces pieces{bio_, snap_.chunk_shift};
  plat_segment segment;
  while (pieces.next(segment)) {
    SnapNode* holder = holder_of(segment);
    if (holder == nullptr) continue;
    if (int rc = read_from_file(*holder, segment); rc != 0) return rc;
    // The watchdog has let writes go that this image needed held.
    if (was_watched_) return -EIO;
  }
  return 0;
}

SnapReadResult SnapRead::run() {
  // The partition first: should the watchdog act, no request of ours is on its way any more.
  int rc = read_from_partition();
  if (rc == 0) rc = read_from_files();
  if (rc == 0 && snap_.snap_valid.load() == 0) rc = -EIO;
  return {rc, was_watched_};
}

}  // namespace

bool is_any_chunk_copied(SnapNode& snap, const SectorRange& sectors) {
  const BlockSpan span = BlockGeometry{snap.chunk_shift}.covering(sectors);
  const u64 count = span.count();
  for (u64 n = 0; n < count; ++n) {
    if (find_holder(snap, span.first + n) != nullptr) return true;
  }
  return false;
}

SnapReadResult serve_snap_read(SnapNode& snap, plat_bio* bio, WorkSet& work) {
  return SnapRead{snap, bio, work}.run();
}

}  // namespace snbf
