// SPDX-License-Identifier: GPL-2.0-only
#include "filter/bmp.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "filter/bmpfile.h"
#include "filter/kdirtyd.h"

namespace snbf {

namespace {

// The caller's buffer, pinned, so that it can be copied under bmp_spin. Fewer bytes than asked for
// may be reachable, always the first ones.
class UserBuffer {
 public:
  UserBuffer(u64 address, u32 bytes, int writable)
      : pin_(snbf_plat_user_pin(address, bytes, writable)) {}
  ~UserBuffer() {
    if (pin_ != nullptr) snbf_plat_user_unpin(pin_);
  }
  UserBuffer(const UserBuffer&) = delete;
  UserBuffer& operator=(const UserBuffer&) = delete;

  size_t reachable_bytes() const { return pin_ != nullptr ? snbf_plat_user_pinned_bytes(pin_) : 0; }
  void write(const u8* from, size_t bytes) { snbf_plat_user_pin_write(pin_, 0, from, bytes); }
  void read(u8* to, size_t bytes) { snbf_plat_user_pin_read(pin_, 0, to, bytes); }

 private:
  plat_user_pin* pin_;
};

int check_size(const char* origin, const ChangeBitmap& bitmap, s64 size) {
  if (size == static_cast<s64>(bitmap.size_bytes())) return 0;
  snbf_log(kLogError, "%s(): Invalid bitmap size %d. Should have been %d", origin,
           static_cast<int>(size), static_cast<int>(bitmap.size_bytes()));
  return -EINVAL;
}

int check_whole_buffer(const char* origin, const ChangeBitmap& bitmap, const snbf_bmp_cmd& record) {
  if (int rc = check_size(origin, bitmap, record.size); rc != 0) return rc;
  if (record.data != 0) return 0;
  snbf_log(kLogError, "%s(): NULL bitmap data pointer passed as input", origin);
  return -EINVAL;
}

int fail_copyout(const char* origin) {
  snbf_log(kLogError, "%s(): Failed to copyout the bitmap", origin);
  return -EFAULT;
}

int fail_copyin(const char* origin) {
  snbf_log(kLogError, "%s(): Failed to copyin the bitmap", origin);
  return -EFAULT;
}

// Tests and sets one bit of one bitmap. Everybody who changes the bits holds bmp_spin, as the
// caller does, so plain accesses do. True: the bitmap was clean, and this bit is the first that its
// file lacks.
bool mark(u32* bitmap, int& dirty, FileGuard& guard, u64 extent) {
  if (bitmap == nullptr) return false;
  u8& byte = reinterpret_cast<u8*>(bitmap)[extent >> 3];
  const u8 mask = static_cast<u8>(1u << (extent & 7));
  if ((byte & mask) != 0) return false;
  byte = static_cast<u8>(byte | mask);
  guard.count_mark();
  if (dirty != 0) return false;
  dirty = 1;
  guard.ask_for_flag();  // also where one is queued: each time that it gets dirty makes one request
  return true;
}

// What one holding of bmp_spin leaves to be done without it.
constexpr unsigned kAskIncr = 1;
constexpr unsigned kAskDiff = 2;
constexpr unsigned kMustWait = 4;

struct MarkedWrite {
  SectorRange sectors;
  plat_bio* bio;  // or null
  Arrival arrival;
};

// The write has to wait for the flags of the files that lack something, or for a parked one.
[[gnu::noinline]] unsigned wait_for_flags(FilterNode& node, const MarkedWrite& write)
    REQUIRES(node.bmp_spin) {
  const auto wants_request = [](FileGuard& guard) {
    if (guard.covers()) return false;
    guard.want_flag();
    return guard.ask_for_flag();
  };
  unsigned left = kMustWait;
  if (wants_request(node.incr_guard)) left |= kAskIncr;
  if (wants_request(node.diff_guard)) left |= kAskDiff;
  const bool lacks_flag = !node.incr_guard.covers() || !node.diff_guard.covers();
  if (write.bio != nullptr) park(node.parking, write.bio, write.arrival, lacks_flag);
  return left;
}

// The worker, whose writes alone come again, makes no request: it takes memory.
void call_helper(FilterNode& node) {
  {
    SpinGuard hold{node.bmp_spin};
    node.incr_guard.request_is_gone();
    node.diff_guard.request_is_gone();
  }
  ask_for_help(node);
}

// The worker is woken first: for the memory of a request the submitter may wait until this very write is done.
[[gnu::noinline]] void do_what_is_left(FilterNode& node, unsigned left, Arrival arrival) {
  if (arrival == Arrival::Again) return call_helper(node);
  if ((left & kMustWait) != 0) wake_parking(node);
  if ((left & kAskIncr) != 0) snbf_sched_write_dirty_flag(node, SNBF_BMP_INCR);
  if ((left & kAskDiff) != 0) snbf_sched_write_dirty_flag(node, SNBF_BMP_DIFF);
}

bool would_overtake(const FilterNode& node, const MarkedWrite& write) REQUIRES(node.bmp_spin) {
  const Parking& parking = node.parking;
  if (parking.first == nullptr && parking.sending.empty()) [[likely]] return false;
  return write.arrival == Arrival::First && may_overlap_parked(parking, write.sectors);
}

// Of the last extent of a write, the verdict over all of it: true if it may go on. What is not done for every write
// stands apart, for this is on the way of each.
[[gnu::always_inline]] inline bool mark_extent(FilterNode& node, u64 extent, bool is_last,
                                               const MarkedWrite& write) {
  unsigned left = 0;
  {
    SpinGuard hold{node.bmp_spin};
    if (mark(node.incr_bmp, node.incr_bmp_dirty, node.incr_guard, extent)) left |= kAskIncr;
    if (mark(node.diff_bmp, node.diff_bmp_dirty, node.diff_guard, extent)) left |= kAskDiff;
    const bool covers = node.incr_guard.covers() && node.diff_guard.covers();
    if (is_last && (!covers || would_overtake(node, write))) [[unlikely]] {
      left |= wait_for_flags(node, write);
    }
  }
  if (left != 0) [[unlikely]] do_what_is_left(node, left, write.arrival);
  return (left & kMustWait) == 0;
}

}  // namespace

const char* bmp_type_text(u32 type) {
  switch (type) {
    case SNBF_BMP_INCR:
      return "Incremental";
    case SNBF_BMP_DIFF:
      return "Differential";
    default:
      return "Unknown";
  }
}

void ChangeBitmap::fill(int byte) const {
  mem_set(bits(), byte, size_bytes());
  if (byte != 0) guard().count_mark();
  set_dirty(1);
}

int check_bmp_command(const char* origin, const Node& node, u32 type) {
  if (node.dev_type != kFilterNode) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) is not a filter device", origin, snbf_blk_major,
             static_cast<int>(node.minor));
    return -EINVAL;
  }
  if (type > SNBF_BMP_INCR) {
    snbf_log(kLogError, "%s(): Invalid bitmap type %d (should be either %d or %d)", origin,
             static_cast<int>(type), static_cast<int>(SNBF_BMP_INCR),
             static_cast<int>(SNBF_BMP_DIFF));
    return -EINVAL;
  }
  return 0;
}

bool mark_extents(FilterNode& node, SectorRange range, plat_bio* write, Arrival arrival) {
  const BlockSpan span = BlockGeometry{node.extent_shift}.covering(range);
  // The kernel keeps requests inside the disk. Were one to leave it, no memory behind the bitmaps
  // is touched.
  const u64 end = span.last < node.extent_cnt ? span.last + 1 : node.extent_cnt;
  bool may_go = true;
  u32 loads;
  do {
    loads = node.loads.load();
    for (u64 extent = span.first; extent < end; ++extent) {
      may_go = mark_extent(node, extent, extent + 1 == end, {range, write, arrival});
    }
    // A load between two extents has taken the bit of the first, and its file covers that of the last.
  } while (may_go && node.loads.load() != loads);
  return may_go;
}

}  // namespace snbf

using namespace snbf;

int snbf_ioctl_get_bmp(Node& node, snbf_bmp_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_get_bmp";
  snbf_log(1, "%s(): Getting %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  const ChangeBitmap bitmap{as_filter(node), record.type};
  if (int rc = check_whole_buffer(kOrigin, bitmap, record); rc != 0) return rc;

  UserBuffer buffer{record.data, bitmap.size_bytes(), 1};
  if (buffer.reachable_bytes() < bitmap.size_bytes()) return fail_copyout(kOrigin);
  SpinGuard hold{bitmap.node.bmp_spin};
  buffer.write(bitmap.bits(), bitmap.size_bytes());
  return 0;
}

int snbf_ioctl_get_and_clr_bmp(Node& node, snbf_bmp_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_get_and_clr_bmp";
  snbf_log(1, "%s(): Getting and clearing %s bitmap of snbf(%d, %d)", kOrigin,
           bmp_type_text(record.type), snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  const ChangeBitmap bitmap{as_filter(node), record.type};
  if (int rc = check_whole_buffer(kOrigin, bitmap, record); rc != 0) return rc;

  UserBuffer buffer{record.data, bitmap.size_bytes(), 1};
  if (buffer.reachable_bytes() < bitmap.size_bytes()) return fail_copyout(kOrigin);
  {
    // One holding for both: a change that a write marks meanwhile is either in the copy or left in
    // the bitmap.
    SpinGuard hold{bitmap.node.bmp_spin};
    buffer.write(bitmap.bits(), bitmap.size_bytes());
    bitmap.fill(0);
  }
  snbf_block_save_dirty_bmps(bitmap.node);
  return 0;
}

int snbf_ioctl_set_bmp(Node& node, snbf_bmp_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_set_bmp";
  snbf_log(1, "%s(): Setting %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  if ((record.size == 0) != (record.data == 0)) {
    snbf_log(kLogError,
             "%s(): bitmap size and bitmap data pointer must either be both NULL or both not-NULL",
             kOrigin);
    return -EINVAL;
  }
  const ChangeBitmap bitmap{as_filter(node), record.type};
  if (record.size == 0) {
    SpinGuard hold{bitmap.node.bmp_spin};
    bitmap.fill(0xFF);
  } else {
    if (int rc = check_size(kOrigin, bitmap, record.size); rc != 0) return rc;
    UserBuffer buffer{record.data, bitmap.size_bytes(), 0};
    const size_t reachable = buffer.reachable_bytes();
    {
      // Kept: straight over the live bitmap, so that a fault leaves what was copied before it.
      SpinGuard hold{bitmap.node.bmp_spin};
      if (reachable > 0) {
        buffer.read(bitmap.bits(), reachable);
        bitmap.guard().count_mark();
      }
      if (reachable == bitmap.size_bytes()) bitmap.set_dirty(1);
    }
    if (reachable < bitmap.size_bytes()) return fail_copyin(kOrigin);
  }
  snbf_block_save_dirty_bmps(bitmap.node);
  return 0;
}

int snbf_ioctl_merge_bmp(Node& node, snbf_bmp_cmd& record) {
  constexpr const char* kOrigin = "snbf_ioctl_merge_bmp";
  snbf_log(1, "%s(): Merging %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  const ChangeBitmap bitmap{as_filter(node), record.type};
  if (int rc = check_whole_buffer(kOrigin, bitmap, record); rc != 0) return rc;

  const u32 size = bitmap.size_bytes();
  VirtBuffer buffer{size};
  if (!buffer) {
    snbf_log(kLogError, "%s(): Failed to allocate a %d-byte buffer", kOrigin,
             static_cast<int>(size));
    return -ENOMEM;
  }
  if (snbf_plat_copy_from_user(buffer.data(), record.data, size) != 0) return fail_copyin(kOrigin);
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    u8* bits = bitmap.bits();
    for (u32 i = 0; i < size; ++i) bits[i] = static_cast<u8>(bits[i] | buffer.data()[i]);
    bitmap.guard().count_mark();
    bitmap.set_dirty(1);
  }
  snbf_block_save_dirty_bmps(bitmap.node);
  return 0;
}

int snbf_ioctl_clr_bmp(Node& node, snbf_bmp_sel& record) {
  constexpr const char* kOrigin = "snbf_ioctl_clr_bmp";
  snbf_log(1, "%s(): Clearing %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  const ChangeBitmap bitmap{as_filter(node), record.type};
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    bitmap.fill(0);
  }
  snbf_block_save_dirty_bmps(bitmap.node);
  return 0;
}
