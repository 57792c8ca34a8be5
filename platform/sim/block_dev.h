// Block devices inside: simulated devices, nodes, and the requests between them.
#pragma once

#include <array>
#include <unordered_map>

#include "kernel.h"
#include "platform/disk.h"

// One opening of a device.
struct plat_bdev {
  snbf::sim::u64 magic;
  snbf::sim::BlockDev* dev;
  int mode;
  plat_open_kind kind;
  void* holder;
  bool by_driver;
};

namespace snbf::sim {

constexpr u64 kSectorBytes = 512;
constexpr u64 kBdevMagic = kMagic + 10;
constexpr u64 kBioMagic = kMagic + 11;
constexpr u64 kDeadBioMagic = kMagic + 12;
constexpr u32 kSplitBytes = 4 << 20;

using Page = std::array<u8, 4096>;
using Sector = std::array<u8, 512>;

// Bytes of a device. `current` is what a read finds; `older` has, for pages with a write that is
// not durable, what is durable of them; `pending` the versions of each sector since then, oldest
// first.
struct Storage {
  struct Version {
    u64 write;  // number of the write that made it
    Sector data;
  };
  u8 blank = 0;  // what was never written
  std::unordered_map<u64, std::unique_ptr<Page>> current;
  std::unordered_map<u64, std::unique_ptr<Page>> older;
  std::map<u64, std::vector<Version>> pending;

  void read(u64 sector, u8* to, u64 bytes) const;
  void read_durable(u64 sector, u8* to, u64 bytes) const;
  // `write` 0: durable at once.
  void write(u64 number, u64 sector, const u8* from, u64 bytes);
  // Every version made by a write up to `number` becomes durable.
  void harden_up_to(u64 number);
  void harden_range(u64 sector, u64 sectors);
  std::shared_ptr<Storage> cut(Rng& rng) const;  // what a power cut leaves
  std::shared_ptr<Storage> copy() const;

 private:
  Page& page(u64 index);
  void put_older(u64 sector, const Sector& data);
};

struct FailRange {
  u64 sector, sectors;
  Op op;
  int error;
};

struct BlockDev {
  std::string name;
  plat_devt number = 0;
  u64 sectors = 0;
  u32 block_bytes = 512;
  bool zoned = false;
  int openers = 0;
  int driver_openers = 0;
  void* holder = nullptr;
  int holders = 0;
  FsState* fs = nullptr;
  plat_disk* disk = nullptr;  // a node
  std::vector<plat_bdev*> opens;

  // A simulated device.
  DeviceOptions options;
  std::shared_ptr<Storage> storage;
  bool held = false;
  struct Waiting {
    plat_bio* bio;
    u64 seen;
  };
  std::vector<Waiting> held_bios;
  std::vector<FailRange> failures;
  std::function<int(int, unsigned, unsigned long)> ioctl;
  Device::Counts counts = {};
  std::vector<Device::Seen> history;
  u64 next_write = 1;
  u64 completed_write = 0;  // writes up to here are done: what a flush sent now covers
  std::map<u64, u64> flush_covers;
  WaitList depth_waiters = {};
  std::vector<plat_bio*> flying;
  std::function<void(const Device::Arrival&)> on_arrival;
  u64 entered = 0;  // in the queue, plugged or under way
  WaitList drain_waiters = {};
  u32 draining = 0;  // nothing enters the queue meanwhile
  WaitList drained = {};
};

struct BioLists {
  std::deque<plat_bio*> fresh;  // submitted by the running submit function
  std::deque<plat_bio*> rest;
};

struct BlockState {
  std::map<plat_devt, BlockDev*> by_number;
  std::vector<std::unique_ptr<BlockDev>> devices;
  std::vector<std::unique_ptr<plat_disk>>
      disks;  // the freed ones too: somebody may still wait for one
  std::vector<std::unique_ptr<plat_bdev>> bdevs;
  std::unordered_set<plat_bio*> bios;
  std::deque<plat_bio*> dead_bios;
  std::map<int, std::string> majors;
  u64 next_bio = 1;
  u32 next_minor = 1;
  ~BlockState();
};

}  // namespace snbf::sim

struct plat_disk {
  snbf::sim::BlockDev dev;
  int major = 0;
  int minor = 0;
  bool added = false;
  bool dead = false;  // being deleted, or deleted
  bool freed = false;
  bool read_only = false;
  int inside = 0;       // requests inside the driver's submit function
  int outstanding = 0;  // requests that the driver has and has not completed
  snbf::sim::Mutex open_mutex{"the open mutex of a disk"};
  WaitList drain = {};
  plat_bdev own = {};  // what the driver's open routine is given
};

namespace snbf::sim {

struct Io::State {
  bool done = false;
  int error = 0;
  Bytes data;
  u64 done_at_us = 0;
  WaitList waiters = {};
};

}  // namespace snbf::sim
