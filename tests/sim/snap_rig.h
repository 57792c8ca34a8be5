// A tracked partition with snaps, and the people around it: writers, readers of the origin and of
// the snaps, an administrator who makes, starts, stops, resumes and deletes snaps. What they see is
// judged by the model.
//
//   sda1  the partition, node snbf0
//   sdb1  the store of bitmap and COW files, mounted at /store
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "arrivals.h"
#include "ext_map.h"
#include "rig.h"
#include "snap_model.h"
#include "tally.h"

namespace snbf::rig {

using model::SnapImage;

constexpr int kAgain = -11, kBusy = -16, kFault = -14, kIoError = -5, kNoMemory = -12,
              kInvalid = -22, kAlready = -114;
// kcowd may be in one file operation for 10 seconds; after it no write is held for it.
constexpr u64 kWriteWaitMaxUs = 11'000'000;

struct SnapSetup {
  u64 bytes = 1 << 20;  // of the partition
  u32 chunk_bytes = 4096;
  u64 store_bytes = 24 << 20;
  u32 store_latency_max_us = 400;
  bool store_on_node = false;  // the store lies on another node of the driver, snbf200
  bool store_by_test = false;  // the test mounts /store itself
  bool store_takes_direct = true;  // writes past the page cache
  u64 fs_blocks = 0;           // of a file system on the node, mounted at /data; 0: none
  int debug = 0;
  int minor_max = 255;
  u32 queue_depth = 0;  // of the partition
  u32 latency_max_us = 400;
  u32 in_place_percent = 0;  // of the requests to either device: see DeviceOptions
  bool tears = false;        // so are these
  bool bio_based = false;  // so is the partition: what is passed on in place cannot be waited for
  // The partition holds a file system's block bitmaps, and the people write them as it would: what is free
  // at its start a snap need not keep. Not with fs_blocks.
  bool has_map = false;
  bool small_groups = false;  // of it
};

// What a snap's data-block map may be.
enum class MapState {
  Unknown,
  Building,  // whole, or not there yet: then all counts as used
  Built,     // whole, but for lack of memory and of what can be read
};

struct Snap {
  int minor;
  std::string files;  // path of its COW files without their suffixes
  bool started = false;
  std::shared_ptr<SnapImage> image = nullptr;
  u64 copies = 0;  // chunks, when last looked at
  MapState map = MapState::Unknown;
};

// Told of each write that the rig's people send to the node, before it goes and when it has ended.
class WriteListener {
 public:
  virtual ~WriteListener() = default;
  virtual u64 sent(u64 sector, u64 sectors) = 0;  // a ticket
  // `moved`: it has been acknowledged, or has failed and is known to have changed the partition all the same.
  virtual void ended(u64 ticket, bool moved) = 0;
};

class SnapRig {
 public:
  // `shared`: what the partition holds since an earlier boot.
  SnapRig(Sim& kernel, const SnapSetup& setup, model::Partition* shared = nullptr);

  // ---- The machine.

  // In a task, on a fresh kernel: devices, driver, started node.
  void begin();
  // In a task, on a kernel with what an earlier one left: the same, without filling anything.
  void begin_again();
  // After a power cut, before the driver is there: the partition holds what a flush or the write itself was to make
  // durable, but for the first `fs_blocks`, which are a file system's.
  void judge_cut(const model::Partition& before, u64 fs_blocks);
  // Every node deleted (or left to the unloading), the driver unloaded.
  void end(bool delete_nodes = true);
  plat_devt node(int minor = 0) const { return base.node(minor); }
  u64 sectors() const { return setup.bytes / 512; }

  // ---- Commands; what is expected of them is the caller's business.

  int create(const std::string& files, int minor = -1, u32 chunk_bytes = 0);
  int resume(int minor, u32 snap_valid = 1, u32 stop_pending = 0, u32 del_pending = 0);
  snbf_info info(int minor);
  bool exists(int minor) { return sim.proc_exists("/proc/snbf/snbf" + std::to_string(minor)); }

  // ---- Requests, judged as they end. Answer their error.

  int write(u64 sector, u64 sectors);
  int discard(u64 sector, u64 sectors);
  int read_origin(u64 sector, u32 sectors);
  int flush();
  // A few of these near one another, each sent before the one before it has ended.
  void pipeline();
  // Of a snap, through an opening of its own where `open`.
  int read_snap(Snap& snap, u64 sector, u32 sectors);
  // Blocks are allocated or freed: a write of the bitmaps that say so.
  int change_map();
  // The snap's data-block map, against what its image says. The caller has it open.
  void check_map(Snap& snap);
  // All of it, and the instant; or, for an invalid one, the refusal.
  void check_snap(Snap& snap);
  bool is_exact(Snap& snap);
  // Every acknowledged write is there.
  void check_partition();
  // A page of a file on the node's file system.
  int write_file_page(u64 page, bool sync);

  // ---- People. Each goes on for so many steps.

  void writer(int steps);
  void file_writer(int steps);
  void map_writer(int steps);
  void origin_reader(int steps);
  void snap_reader(int steps);
  void admin(int steps);

  // ---- Snaps as the model knows them, oldest first.

  Snap* add_snap();            // created, or null
  int start_snap(Snap& snap);  // as the command answers
  // The same, for one that is stopped: it may have to be asked again, a few times.
  void bring_up(Snap& snap);
  int stop_snap(Snap& snap);
  int delete_snap(Snap& snap);
  // The node, with all of them, under whoever is about.
  int stop_node();
  int remove_node();
  Snap* any_snap(bool started);
  // After an error of a read or a copy: whether the snap may refuse reads.
  bool may_refuse(int minor);
  void check_snaps();
  // Those that the driver knows no more.
  void forget_gone();
  // With nobody about: the node and its snaps are stopped, the driver perhaps loaded anew, and
  // those that were started resumed.
  void stop_all_and_resume(bool reload);
  // With nobody about, and the store not on a node: the store is mounted anew and the driver loaded anew, without any
  // snap.
  void mount_anew();

  Sim& sim;
  SnapSetup setup;
  Rig base;

 private:
  std::unique_ptr<model::Partition> own_partition_;

 public:
  model::Partition& partition;
  std::vector<std::shared_ptr<Snap>> snaps;
  int snaps_max = 4;
  WriteListener* listener = nullptr;
  u64 write_sectors_max = 64;
  bool copies_may_fail = false;     // the COW store is broken: snaps may become invalid
  bool partition_may_fail = false;  // so is the partition: requests to it may fail
  bool memory_may_fail = false;     // commands may fail for it, and snaps too
  bool waits_checked = true;
  u64 longest_wait_allowed_us = kWriteWaitMaxUs;
  u64 longest_wait_us = 0;
  bool node_may_go = false;  // with its snaps, under everybody
  bool is_mended = false;  // what could break is whole again: what is valid answers
  Tally tally;

 private:
  // A request of ours on its way to the node.
  struct Sent {
    sim::Op op;
    u64 sector = 0;
    u32 bytes = 0;
    bool is_flush = false;  // whatever else it is
    bool is_fua = false;
    u64 sent = 0;  // the model's time
    u64 sent_us = 0;
    u64 told = 0;
    u64 place = 0;  // in the order of arrival
    model::WriteTicket ticket = {};
    sim::Io io = {};
  };

  Sent send(sim::Request request, std::optional<model::WriteTicket> own = std::nullopt);
  int finish(const Sent& sent);
  Sent send_one_of(u64 first, u64 sectors);
  void make_devices();
  void mount_and_load(bool fresh);
  // Whether a change that has failed is on the partition all the same, in part or whole.
  bool has_moved(const Sent& sent) const;
  void judge_write(int rc, u64 waited_us);
  void count_copies(Snap& snap);
  void forget(const std::shared_ptr<Snap>& snap);
  void judge_refusal(Snap& snap, int rc);
  std::string judge_image(SnapImage& image, u64 sector, const Bytes& data) const;
  bool is_foreign(u64 sector) const;  // what a file system keeps there for itself
  void lay_out_map();
  // What the people leave alone: a file system's, or its map.
  u64 first_sector() const { return map_ ? map_->end_sector() : setup.fs_blocks * 8; }
  // Reads from the image what its file system used, unless that is known. The read's error; what is wrong
  // with what was read, or "".
  int learn_map(Snap& snap, SnapImage& image, std::string* wrong);
  void one_write();
  void write_freed();
  u32 piece_offset();
  int read(plat_devt device, u64 sector, u32 sectors, Bytes* data);
  void check_files_gone(const Snap& snap);

  Arrivals arrivals_{sim, tally};
  std::vector<std::shared_ptr<Snap>> gone_;  // somebody may be about to ask for one
  std::vector<std::pair<u64, u64>> file_map_;
  u64 file_pages_ = 0;
  int files_made_ = 0;
  std::optional<model::ExtMap> map_;  // as it was last written, or is about to be
  bool map_changes_ = false;
  std::pair<u64, u64> freed_;  // blocks, the last that were: the first and how many
};

}  // namespace snbf::rig
