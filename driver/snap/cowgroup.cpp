// SPDX-License-Identifier: GPL-2.0-only
#include "snap/cowgroup.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "snap/invalidate.h"
#include "util/file.h"

namespace snbf {

namespace {

constexpr const char* kOrigin = "kcowd";
constexpr u32 kBitsAtOnce = 16;

class GroupCopy {
 public:
  GroupCopy(FilterNode& filter, SnapNode& snap, WorkSet& work)
      : filter_(filter), snap_(snap), work_(work) {}

  void run();

 private:
  bool is_copying() const { return snap_.started.load() != 0 && snap_.snap_valid.load() != 0; }
  Slice slice_of(u32 chunk, u64 offset) const;
  bool copy_chunks();
  bool copy_slices(const Slice* slices, u32 count);
  bool read_slices(const Slice* slices, u32 count);
  void report_failures(const Slice* slices, u32 count) const;
  u32 join_neighbours(const Slice* slices, u32 count);
  bool write_direct(plat_file_piece* pieces, u32 count);
  bool write_buffered(const plat_file_piece* pieces, u32 count);
  bool sync_data();
  void mark_copied();
  bool set_bits();

  // One file operation. The watchdog may act while it lasts.
  template <typename Operation>
  auto in_file(Operation operation) {
    filter_.cowthread.gate.begin_file_operation(snap_.minor);
    const auto rc = operation();
    filter_.cowthread.gate.end_file_operation();
    return rc;
  }

  FilterNode& filter_;
  SnapNode& snap_;
  WorkSet& work_;
};

Slice GroupCopy::slice_of(u32 chunk, u64 offset) const {
  const u64 first = (static_cast<u64>(chunk) << snap_.chunk_shift) + offset;
  const u64 wanted = snap_.chunk_size < kGroupBytes ? snap_.chunk_size : kGroupBytes;
  const u64 left = filter_.dev_size - first;
  return {first, wanted < left ? wanted : left};
}

bool GroupCopy::read_slices(const Slice* slices, u32 count) {
  u32 pages = 0;
  for (u32 i = 0; i < count; ++i) {
    for (u64 done = 0; done < slices[i].bytes; done += kPageBytes, ++pages) {
      const u64 left = slices[i].bytes - done;
      const u32 bytes = left < kPageBytes ? static_cast<u32>(left) : kPageBytes;
      snbf_plat_bio_set_page(work_.bios[pages], 0, (slices[i].first + done) / kSectorBytes,
                             work_.pages[pages], bytes);
    }
  }
  if (work_.read_all(pages, filter_.hdd_bdev)) return true;
  report_failures(slices, count);
  return false;
}

// Of each request the place that it was sent to: one that has run has moved on.
void GroupCopy::report_failures(const Slice* slices, u32 count) const {
  u32 page = 0;
  for (u32 i = 0; i < count; ++i) {
    for (u64 done = 0; done < slices[i].bytes; done += kPageBytes, ++page) {
      if (snbf_plat_bio_is_uptodate(work_.bios[page])) continue;
      const u64 sector = (slices[i].first + done) / kSectorBytes;
      snbf_log(kLogError, "%s(): Failed to read %d-byte block #%d from %s", kOrigin,
               static_cast<int>(kPageBytes), static_cast<int>(sector >> 12), filter_.name);
    }
  }
}

// Whole pages: what the partition's end cuts off is filled up with zeros, which the file holds
// there anyway.
u32 GroupCopy::join_neighbours(const Slice* slices, u32 count) {
  u32 pieces = 0, page = 0;
  for (u32 i = 0; i < count; ++i) {
    const u32 pages = static_cast<u32>((slices[i].bytes + kPageBytes - 1) / kPageBytes);
    const u32 in_last = static_cast<u32>(slices[i].bytes % kPageBytes);
    if (in_last != 0) {
      mem_set(static_cast<u8*>(work_.pages[page + pages - 1]) + in_last, 0, kPageBytes - in_last);
    }
    plat_file_piece* last = pieces > 0 ? &work_.pieces[pieces - 1] : nullptr;
    if (last != nullptr && last->position + last->bytes == slices[i].first) {
      last->bytes += pages * kPageBytes;
    } else {
      work_.pieces[pieces++] = {slices[i].first, &work_.pages[page], pages * kPageBytes, -EINVAL};
    }
    page += pages;
  }
  return pieces;
}

// A file operation for all of them together.
bool GroupCopy::write_direct(plat_file_piece* pieces, u32 count) {
  const int rc = in_file([&] {
    return snbf_fwrite_direct(snap_.cow_data_file, work_.direct, pieces, static_cast<int>(count));
  });
  if (rc == -EINVAL) snap_.is_buffered = true;
  return rc == 0 || rc == -EINVAL;
}

// A file operation for each.
bool GroupCopy::write_buffered(const plat_file_piece* pieces, u32 count) {
  bool written = true;
  for (u32 i = 0; i < count; ++i) {
    if (pieces[i].result != -EINVAL) continue;  // written already
    const int bytes = static_cast<int>(pieces[i].bytes);
    const int rc = in_file([&] {
      return snbf_fwrite_pages(snap_.cow_data_file, pieces[i].position, pieces[i].pages, bytes);
    });
    if (rc != bytes) written = false;
  }
  return written;
}

// All of them fit into the pages. What can be written is written, whatever fails before it.
bool GroupCopy::copy_slices(const Slice* slices, u32 count) {
  if (!read_slices(slices, count)) return false;
  const u32 pieces = join_neighbours(slices, count);
  bool written = true;
  for (u32 done = 0; done < pieces; done += kPiecesAtOnce) {
    plat_file_piece* some = &work_.pieces[done];
    const u32 left = pieces - done < kPiecesAtOnce ? pieces - done : kPiecesAtOnce;
    if (!snap_.is_buffered && !write_direct(some, left)) written = false;
    if (snap_.is_buffered && !write_buffered(some, left)) written = false;
  }
  return written;
}

bool GroupCopy::copy_chunks() {
  Slice* slices = work_.slices;
  if (snap_.chunk_size <= kGroupBytes) {
    for (u32 i = 0; i < work_.chunks.count(); ++i) slices[i] = slice_of(work_.chunks.chunk(i), 0);
    return copy_slices(slices, work_.chunks.count());
  }
  // A chunk that is larger than a group goes piece by piece; its bit follows the last.
  const u32 chunk = work_.chunks.chunk(0);
  for (u64 offset = 0; offset < snap_.chunk_size; offset += kGroupBytes) {
    if ((static_cast<u64>(chunk) << snap_.chunk_shift) + offset >= filter_.dev_size) break;
    slices[0] = slice_of(chunk, offset);
    if (!copy_slices(slices, 1) || !is_copying()) return false;
  }
  return true;
}

bool GroupCopy::sync_data() {
  return in_file([&] { return snbf_fsync(snap_.cow_data_file); }) == 0;
}

bool GroupCopy::set_bits() {
  const u32 count = work_.chunks.count();
  // A file that is written synchronously may take its time for each byte: not too many in one operation.
  for (u32 done = 0; done < count; done += kBitsAtOnce) {
    if (!is_copying()) return false;
    const u32 bits = count - done < kBitsAtOnce ? count - done : kBitsAtOnce;
    const int rc = in_file([&] {
      return snbf_cowbmp_set_bits(&snap_.cow_bmp, work_.chunks.chunks() + done, bits, PLAT_ALLOC_NOIO,
                                  snap_.cow_bmp_file);
    });
    if (rc != 0) return false;
  }
  return in_file([&] { return snbf_fsync(snap_.cow_bmp_file); }) == 0;
}

void GroupCopy::mark_copied() {
  filter_.cowthread.unsafe_chunks.store(&work_.chunks);
  const bool marked = set_bits();
  // Of a snap that is given up the bits mean nothing: that comes first.
  if (!marked && is_copying()) invalidate_snaps(snap_);
  filter_.cowthread.unsafe_chunks.store(nullptr);
}

void GroupCopy::run() {
  if (!is_copying()) return;
  const u32 chunks = work_.chunks.count();
  snbf_log(1, "%s(): COWing %d chunks (%d pages), snap_minor=%d, queue_cnt=%d", kOrigin,
           static_cast<int>(chunks),
           static_cast<int>(static_cast<u64>(chunks) * snap_.chunk_size / kPageBytes),
           static_cast<int>(snap_.minor), filter_.cowqueue.length());
  if (!copy_chunks() || !sync_data()) {
    if (is_copying()) invalidate_snaps(snap_);
    return;
  }
  mark_copied();
}

}  // namespace

void copy_group(FilterNode& filter, SnapNode& snap, WorkSet& work) {
  GroupCopy{filter, snap, work}.run();
}

}  // namespace snbf
