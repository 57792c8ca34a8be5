// SPDX-License-Identifier: GPL-2.0-only
// The node record and the node table.
//
// Every node of the driver, filter or snap, is one record in one table indexed by minor. Lock order,
// outermost first:
//
//   lifecycle_mutex      adding, deleting, unloading; nobody else
//   snbf_blkdev_rwlock   the table: for reading while a node is used, for writing to add and remove
//   node_mutex           start, stop, open and release of one node. A start takes the snap's, then its
//                        filter's; a stop takes the filter's, then those of its snaps, but never waits for
//                        one that is not started
//   io_rwlock            of a filter: for reading while a request is routed, for writing to drain
//   bmp_mutex            file work on the bitmaps of a filter
//   spin locks           bmp_spin, the COW queue's, the dirty requests', the tracker's; no file work
//                        under any
//
// Never under snbf_blkdev_rwlock: allocating, adding or removing a disk, adding or removing a /proc entry. A
// removal waits for callers that wait for the table; an allocation and an addition wait for others who may
// wait for a write.
#pragma once

#include "base/atomic.h"
#include "base/list.h"
#include "block/kslock.h"
#include "filter/fileguard.h"
#include "filter/parking.h"
#include "fsread/blkbmp.h"
#include "io/aio.h"
#include "platform/block.h"
#include "platform/disk.h"
#include "snap/cowbmp.h"
#include "snap/cowqueue.h"
#include "snap/cowthread.h"
#include "util/file.h"

namespace snbf {

constexpr int kFilterNode = 1;
constexpr int kSnapNode = 2;

constexpr u32 kUuidBytes = 39;  // "{" 36 characters "}" and a terminator
constexpr u32 kNameBytes = 128;
constexpr u32 kDevNameBytes = kNameBytes + 16;
constexpr u32 kMaxSnaps = 256;  // on one filter node

struct ByDoom;

struct Node : ListLink<ByDoom> {
  int dev_type = 0;
  Atomic<int> started;  // written under node_mutex, read by the request path without
  Atomic<int> use_cnt;  // successful opens less releases; changed under node_mutex
  KsMutex node_mutex;
  u32 minor = 0;
  char uuid[kUuidBytes] = {};
  char name[kNameBytes] = {};
  char dev_name[kDevNameBytes] = {};  // path of the device file; empty while there is none

  char disk_name[32] = {};    // "snbf%d"
  plat_bdev* bdev = nullptr;  // the node's own block device as last opened; under node_mutex
  plat_disk* disk = nullptr;
  int remove_files = 0;  // of a node out of the table: the COW files of a snap go with it
};

struct BySnapOrder;
struct SnapNode;

struct FilterNode : Node {
  plat_devt hdd_dev = 0;
  char hdd_name[kPathBytes] = {};
  plat_bdev* hdd_bdev = nullptr;
  u32 extent_size = 0;
  u32 extent_shift = 0;
  u32 extent_cnt = 0;
  u64 dev_size = 0;
  char bmp_dir[kPathBytes] = {};
  char incr_bmp_fname[kPathBytes] = {};
  char diff_bmp_fname[kPathBytes] = {};
  // Oldest image first: in the order of attaching, but that a snap which starts behind newer ones that are started
  // already goes to the end. Changed under the table's write lock.
  List<SnapNode, BySnapOrder> snaps;

  KsMutex bmp_mutex;
  SpinLock bmp_spin;
  u32 incr_bmp_size = 0;  // bytes
  u32 diff_bmp_size = 0;
  u32* incr_bmp PT_GUARDED_BY(bmp_spin) = nullptr;
  u32* diff_bmp PT_GUARDED_BY(bmp_spin) = nullptr;
  int incr_bmp_dirty GUARDED_BY(bmp_spin) = 0;
  int diff_bmp_dirty GUARDED_BY(bmp_spin) = 0;
  FileGuard incr_guard GUARDED_BY(bmp_spin);
  FileGuard diff_guard GUARDED_BY(bmp_spin);
  Atomic<u32> loads;  // files whose bits have taken the place of those in memory
  // The number of the file system in which the file was last seen, 0: in none yet. Under bmp_mutex.
  plat_devt incr_bmp_store = 0;
  plat_devt diff_bmp_store = 0;
  Parking parking;

  // Who still holds a pointer: the table or the deletion, each queued dirty request, and whoever writes flags. The
  // last one frees the record.
  Atomic<int> holders{1};

  CowQueue cowqueue;
  CowThread cowthread;  // changed under node_mutex
  KsRwLock io_rwlock;
  Atomic<int> io_req_cnt;
  AioTracker aio;
  // Requests that are passed on in place are seen no more once they have entered the partition's queue. So where
  // that cannot be waited for, writes go as clones from the beginning; else those still on their way into it are
  // counted, and the first snap to start waits for them and then for the queue.
  bool can_drain = false;
  Atomic<int> entering;
  Atomic<int> drained;  // nothing that was passed on in place is under way any more; 0 while there are no snaps
};

struct SnapNode : Node, ListLink<BySnapOrder> {
  u32 chunk_size = 0;
  u32 chunk_shift = 0;
  FilterNode* filter_node = nullptr;
  char cow_data_fname[kPathBytes] = {};
  char cow_bmp_fname[kPathBytes] = {};
  CowBitmap cow_bmp;
  snbf_file* cow_data_file = nullptr;
  snbf_file* cow_bmp_file = nullptr;
  snbf_blkbmp blkbmp;
  KsMutex map_mutex;  // building blkbmp; before every other lock
  bool is_buffered = false;  // the COW data file takes no direct writes; kcowd's
  u64 chunk_cnt = 0;
  u64 cow_data_size = 0;
  u32 cow_bmp_size = 0;
  Atomic<int> snap_valid;
  Atomic<int> stop_pending;
  Atomic<int> del_pending;
  Atomic<int> truncation_due;  // given up, and its COW data file is not emptied yet
};

// The node must be of that kind.
inline FilterNode& as_filter(Node& node) { return static_cast<FilterNode&>(node); }
inline SnapNode& as_snap(Node& node) { return static_cast<SnapNode&>(node); }
inline const FilterNode& as_filter(const Node& node) {
  return static_cast<const FilterNode&>(node);
}
inline const SnapNode& as_snap(const Node& node) { return static_cast<const SnapNode&>(node); }

// Drops one hold on the record's memory.
void put_filter_node(FilterNode& node);

// Null when the minor is outside the table, its slot is empty, or there is no table yet or any
// more. The table's lock is held.
Node* find_node(u32 minor);

// Taken by whoever adds or deletes nodes or unloads, before every other lock: a minor whose node is
// being taken apart behind the table's lock does not come back meanwhile.
extern KsMutex lifecycle_mutex;

// Before anything can reach the driver.
void init_table_locks();

}  // namespace snbf

extern snbf::Node** snbf_blkdev_arr;
extern snbf::KsRwLock snbf_blkdev_rwlock;

namespace snbf {

// The table's lock for writing. No allocation of the holder starts I/O: the request that it waits
// for may need the table.
class SCOPED_CAPABILITY TableWriteGuard {
 public:
  TableWriteGuard() ACQUIRE(snbf_blkdev_rwlock);
  ~TableWriteGuard() RELEASE();
  TableWriteGuard(const TableWriteGuard&) = delete;
  TableWriteGuard& operator=(const TableWriteGuard&) = delete;

  // The lock stays held after the scope.
  void leave_held() { is_left_held_ = true; }

 private:
  unsigned noio_state_;
  bool is_left_held_ = false;
};

}  // namespace snbf
