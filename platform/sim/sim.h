// A simulated kernel for tests: the public side.
//
// One Sim is one boot. Every task is a fiber, one runs at a time, and a seeded scheduler may switch
// at every platform call and at every SNBF_PLAT_POINT(). Time is virtual. The same seed gives the
// same run (Sim::trace_hash). A rule that is broken (sleeping under a spin lock, a deadlock, use of
// freed memory, something left over, ...) is *fatal*: it ends the run with a message; see
// expect_fatal.
//
// How to write a test (more in tests/support/sim_test.h):
//
//   #include "sim_test.h"
//
//   // The body runs in a task of its own, once for each of a few seeds, on a fresh kernel with a
//   fresh
//   // driver; whatever it leaves over (memory, files, locks, ...) fails it.
//   SIM_TEST(CowQueueAppend, ReadGoesBehindTheLastWriteItOverlaps) {
//     CowQueue* queue = ...;                       // call driver functions as they are
//     plat_bio* bio = sim.make_bio(Op::Write, /*sector=*/8, /*bytes=*/4096);  // a caller's request
//     ...
//     EXPECT_TRUE(sim.log().contains("Appending new request"));
//   }
//
//   // Whole driver:
//   SIM_TEST(FilterNode, MarksWhatIsWritten) {
//     sim.add_device({.name = "sda1", .bytes = 64 << 20});     // appears as /dev/sda1
//     ASSERT_EQ(sim.load_driver({.debug = 4}), 0);
//     ...sim.ioctl(SNBF_ADD_FILTER_NODE, &record, sizeof(record))...
//     Task* writer = sim.spawn("writer", [&] { EXPECT_EQ(sim.write(node, 0, data), 0); });
//     sim.join(writer);
//     ASSERT_EQ(sim.unload_driver(), 0);            // ends the run if anything of the driver is
//     left
//   }
//
//   // A check that must fire:
//   SIM_TEST(SpinLock, SleepingUnderItEndsTheTest) {
//     sim.expect_fatal("sleeps with the spin lock");
//     ...; snbf_plat_sleep_ms(1);
//   }
//
//   // Power cuts and several boots: plain TEST, with Sims of one's own (they live one after the
//   other). TEST(BitmapFile, SurvivesAPowerCut) {
//     for_seeds(50, [](u64 seed) {
//       Images images;
//       {
//         Sim sim({.seed = seed});
//         Device* disk = sim.add_device({.name = "sda1", .bytes = 16 << 20});
//         FileSystem* fs = sim.add_fs("root", disk->number());
//         sim.mount(fs, "/var");
//         sim.spawn("agent", [&] { ...; sim.power_cut(); });
//         ASSERT_EQ(sim.run(), RunEnd::PowerCut);
//         images = sim.take_images();
//       }
//       Sim sim({.seed = seed, .images = &images});   // the same devices and file systems, not
//       mounted
//       ...
//     });
//   }
//
// Environment: SNBF_SEED=n repeats one seed; SNBF_SEEDS=k tries k times as many; SNBF_SIM_LOG=1
// prints the kernel log as it comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/block.h"
#include "platform/types.h"

namespace snbf::sim {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using s64 = std::int64_t;
using Bytes = std::vector<u8>;

struct Kernel;
struct BlockDev;
struct FsState;
struct MemoryState;
using Task = ::plat_task;

constexpr plat_devt dev(u32 major, u32 minor) { return major << 20 | minor; }

// ------------------------------------------------------------------------------------------
// Faults. Only calls that the driver makes through the platform contract count and fail.

enum class Fault {
  // Memory. AnyAllocation counts every one of these together.
  Heap,
  Virt,
  Page,
  CacheCreate,
  PoolCreate,
  PoolAlloc,  // the cache below has nothing: what follows falls back on the reserve
  BioAlloc,
  BioClone,
  UserPin,
  AnyAllocation,
  // Files. Short*: about half of the bytes are moved, no error.
  FileOpen,
  FileRead,
  FileWrite,
  FileSync,
  SyncLoss,  // ENOSPC or EIO: pages that were not on disk are lost, or not; the next sync knows nothing of it
  ShortRead,
  ShortWrite,
  ZeroWrite,    // nothing is written, no error
  DirectWrite,  // a piece of a direct write is refused with -EINVAL
  PathLookup,
  ParentLock,
  Mknod,
  Unlink,
  // The rest.
  BdevOpen,
  BdevFreeze,
  ThreadStart,
  ProcCreate,
  DiskAlloc,
  DiskAdd,
  ChrdevRegister,
  BlkdevRegister,
  CopyFromUser,  // faults after a part of the bytes
  CopyToUser,
  DeviceRead,  // requests that reach a simulated device, whoever sent them
  DeviceWrite,
  DeviceFlush,
  kCount,
};

// ------------------------------------------------------------------------------------------
// The kernel log.

struct LogLine {
  int level;         // 3 an error, 6 information, -1 none given
  std::string text;  // without its level and its last newline
  std::string raw;   // exactly what was printed
  int pid;
  bool interrupt;
  u64 time_us;
};

class Log {
 public:
  const std::vector<LogLine>& lines() const { return lines_; }
  bool contains(std::string_view part) const { return count(part) > 0; }
  // Lines that contain `part`; of one level only where it is given.
  int count(std::string_view part, int level = -2) const;
  bool has_errors() const { return count("", 3) > 0; }
  int errors() const { return count("", 3); }
  // The last line that contains `part`, or "".
  std::string last(std::string_view part = "") const;
  void clear() { lines_.clear(); }
  // Every text, one a line.
  std::string dump() const;

 private:
  friend struct Kernel;
  std::vector<LogLine> lines_;
};

// ------------------------------------------------------------------------------------------
// Requests from outside of the driver.

enum class Op { Read, Write, Flush, Discard, WriteZeroes, SecureErase };

struct Request {
  Op op = Op::Read;
  u64 sector = 0;
  u32 bytes =
      0;  // of a read, discard, write-zeroes or secure erase; a write takes the size of its data
  Bytes data = {};  // of a write
  bool preflush = false;
  bool fua = false;
  u32 first_piece_offset =
      0;  // where in its page the first piece of the data begins (multiple of 512)
};

// A request on its way. Copies share it.
class Io {
 public:
  struct State;
  bool done() const;
  // Waits in the calling task. 0 or a negative error.
  int wait() const;
  int error() const;          // once done
  const Bytes& data() const;  // of a read, once done
  u64 done_at_us() const;

 private:
  friend class Sim;
  std::shared_ptr<State> state_;
};

// ------------------------------------------------------------------------------------------
// Simulated block devices.

struct DeviceOptions {
  std::string name = {};  // "/dev/NAME" names it
  u64 bytes = 16 << 20;
  plat_devt number = 0;  // 0: 8:n
  u32 block_bytes = 512;
  bool zoned = false;
  bool bio_based = false;   // its queue does not count what is under way: it cannot be drained
  u32 latency_min_us = 20;  // requests complete after a random time between the two, in any order
  u32 latency_max_us = 400;
  u32 queue_depth =
      0;  // requests that may be in flight, 0: any; a submitter sleeps for a free place
  bool write_cache = true;  // false: a write is durable when it completes
  u8 blank = 0;             // each byte of it at first: few disks are new
  // So many of its requests are complete before their submission returns, in the submitter's own context; and so
  // many of those that fail (Device::fail_range) the kernel refuses at once, whatever its caller holds.
  u32 in_place_percent = 0;
  // A write that fails has moved any of its sectors all the same, a read has filled any of its memory, with right
  // bytes or others; but not one that was refused.
  bool tears = false;
};

class Device {
 public:
  plat_devt number() const;
  const std::string& name() const;
  u64 bytes() const;
  std::string path() const;  // "/dev/NAME"

  // Contents as a read would find them now; no request, no time. Any context, outside of the run
  // too.
  Bytes peek(u64 sector, u32 bytes) const;
  void poke(u64 sector, std::span<const u8> data);  // durable at once
  Bytes all() const { return peek(0, static_cast<u32>(bytes())); }

  // Requests stay until they are released, one at a time or all.
  void hold(bool on);
  struct Held {
    Op op;
    u64 sector;
    u32 bytes;
    bool fua, preflush;
  };
  std::vector<Held> held() const;
  void release(std::size_t index = 0);
  void release_all();

  // Requests that touch the range fail with `error` until cleared.
  void fail_range(u64 sector, u64 sectors, Op op, int error);
  void clear_failures();
  void set_latency(u32 min_us, u32 max_us);
  // Answers ioctls that are passed on to it; without one it knows no ioctl.
  void set_ioctl(std::function<int(int mode, unsigned cmd, unsigned long arg)> handler);

  struct Counts {
    u64 reads, writes, discards, flushes, fua, read_sectors, write_sectors, in_flight,
        in_flight_max, in_place, refused, torn;
  };
  Counts counts() const;
  // Every request in the order in which it reached the device.
  struct Seen {
    Op op;
    u64 sector;
    u32 bytes;
    bool fua, preflush;
    int error;  // of a completed one
    bool completed;
    u64 sent_us, done_us;
  };
  const std::vector<Seen>& history() const;
  void clear_history();
  // A request as it comes to the device.
  struct Arrival {
    Op op;
    u64 sector;
    u32 bytes;
    u64 mark;     // the first eight bytes that a write carries; else 0
    bool is_own;  // made by the driver for itself, and nobody's request
    bool operator==(const Arrival&) const = default;
  };
  // Told of each, before it is under way; no switch to another task inside.
  void on_arrival(std::function<void(const Arrival&)> told);
  std::vector<Arrival> under_way() const;
  int openers() const;
  // Contents that a power cut now would keep for certain.
  Bytes durable(u64 sector, u32 bytes) const;

 private:
  friend class Sim;
  friend struct Kernel;
  explicit Device(BlockDev* dev) : dev_(dev) {}
  BlockDev* dev_;
};

// ------------------------------------------------------------------------------------------
// Simulated file systems. Contents lie on a device (or a node) in blocks of 4096 bytes; names,
// sizes and block numbers in a journal that a fiber of its own commits.

class FileSystem {
 public:
  const std::string& name() const;
  bool mounted() const;
  // Blocks that may still be allocated; the disk is full after them.
  void set_free_blocks(u64 blocks);
  u64 free_blocks() const;
  // Whether it takes writes past the page cache. One without a device never does.
  void set_takes_direct(bool takes);
  // As an administrator's fsfreeze: the driver's freeze of its device then fails with -EBUSY.
  int freeze_by_hand();
  int thaw_by_hand();
  bool frozen() const;
  bool dirty() const;  // pages or journal entries that are not on disk
  u64 lost_pages() const;  // by Fault::SyncLoss, so far
  // Its journal has failed: until it is mounted anew each change and each sync answers -EROFS or -EIO. It can be
  // read, and what is on disk stays as it is.
  void abort_journal();
  bool aborted() const;
  u64 refusals() const;  // for that, so far
  // Byte ranges of the device that a file occupies, {first sector, sectors}.
  std::vector<std::pair<u64, u64>> map(const std::string& path) const;

 private:
  friend class Sim;
  friend struct Kernel;
  explicit FileSystem(FsState* state) : state_(state) {}
  FsState* state_;
};

// What a power cut (or a shutdown) leaves: the contents of devices and of file systems, by name.
struct Images {
  struct Impl;
  std::shared_ptr<Impl> impl;
};

// ------------------------------------------------------------------------------------------
// Memory of a user process.

class UserBuffer {
 public:
  UserBuffer() = default;
  u64 address() const { return address_; }
  u64 size() const { return size_; }
  Bytes bytes() const;
  void set(std::span<const u8> data, u64 offset = 0);
  template <typename T>
  T as() const {
    T value{};
    read(&value, sizeof(value));
    return value;
  }
  // From byte `offset` on every access faults (and pinning stops at that page).
  void fault_at(u64 offset);
  // The pages exist but nobody has touched them: a copy faults them in, which sleeps.
  void untouch();
  void make_read_only();
  void unmap();

 private:
  friend class Sim;
  void read(void* to, std::size_t bytes) const;
  u64 address_ = 0;
  u64 size_ = 0;
};

// ------------------------------------------------------------------------------------------
// The kernel.

enum class RunEnd { Done, Fatal, PowerCut };

struct Options {
  u64 seed = 1;
  const Images* images = nullptr;  // devices and file systems of an earlier boot
  u64 step_limit = 60'000'000;     // beyond it the run counts as going round in circles
};

struct DriverParams {
  int chr_major = 100;
  int debug = 1;
  int max_blk_minor = 255;
  int blk_major = 100;
};

// What of the driver the kernel calls. Sim::load_driver and Sim::use_driver take the real ones.
struct Entries {
  int (*init)(void) = nullptr;
  void (*unload)(void) = nullptr;
  int (*char_open)(void*, void*) = nullptr;
  int (*char_release)(void*, void*) = nullptr;
  plat_s64 (*char_read)(void*, plat_u64, plat_size, plat_s64*) = nullptr;
  plat_s64 (*char_write)(void*, plat_u64, plat_size, plat_s64*) = nullptr;
  int (*char_ioctl)(void*, void*, unsigned, unsigned long) = nullptr;
  int (*block_open)(plat_bdev*, plat_devt) = nullptr;
  int (*block_release)(plat_devt) = nullptr;
  int (*block_ioctl)(plat_devt, int, unsigned, unsigned long) = nullptr;
  int (*make_request)(void*, plat_bio*) = nullptr;
  int (*read_proc)(char*, char**, plat_s64, int, int*, void*) = nullptr;
  int (*write_proc)(void*, plat_u64, unsigned long, void*) = nullptr;
};

// An open node or device: as a file descriptor of /dev/....
class OpenNode {
 public:
  OpenNode() = default;
  explicit operator bool() const { return bdev_ != nullptr; }
  plat_bdev* bdev() const { return bdev_; }

 private:
  friend class Sim;
  plat_bdev* bdev_ = nullptr;
  int mode_ = 0;
};

class Sim {
 public:
  explicit Sim(Options options = {});
  ~Sim();
  Sim(const Sim&) = delete;
  Sim& operator=(const Sim&) = delete;

  // ---- Tasks and the run. Everything that a task can call may switch to another one.

  // A user process; it runs once run() is called, or at once when the caller is a task itself.
  Task* spawn(const std::string& name, std::function<void()> body, int pid = 0);
  void join(Task* task);  // in a task
  void join_all();        // in a task: every spawned one but the caller
  // Runs until every spawned task has ended and nothing is in flight.
  RunEnd run();
  // Both in one: `body` is a task, and everything it spawned has ended too.
  RunEnd run(std::function<void()> body);
  bool in_task() const;
  static Task* current();
  static int pid_of(const Task* task);
  // Runs `handler` in interrupt context after `delay_us`.
  void interrupt(std::function<void()> handler, u32 delay_us = 0);
  // As Sim::interrupt, and waits until it has run.
  void in_interrupt(std::function<void()> handler);
  void sleep_us(u64 us);
  void point();                                      // a place where another task may run
  void wait_until(std::function<bool()> condition);  // polls, sleeping in between; a deadlock if
                                                     // nothing can change it
  u64 now_us() const;
  u64 steps() const;
  void set_step_limit(u64 steps);
  u64 seed() const;
  u64 random();  // from the seed, but not from the scheduler's stream
  u64 random(u64 below) { return random() % below; }
  // The same for two runs that went the same way.
  u64 trace_hash() const;
  // Nobody is switched away from while one of these lives, but where it must wait.
  class Quiet {
   public:
    explicit Quiet(Sim& sim);
    ~Quiet();

   private:
    Sim& sim_;
  };
  // Begins a plug of the calling task: its requests to devices gather until it ends or the task
  // sleeps.
  class Plug {
   public:
    explicit Plug(Sim& sim);
    ~Plug();

   private:
    Sim& sim_;
  };

  // ---- Fatal ends.

  // The run must end in a fatal message that contains `part`.
  void expect_fatal(const std::string& part);
  bool expects_fatal() const;
  const std::string& fatal_message() const;
  bool fatal_as_expected() const;
  // Ends the run.
  [[noreturn]] void fatal(const std::string& message);
  // Ends the run if anything that the driver asked for is still there: memory, files, threads,
  // locks, ...
  void check_nothing_left(const std::string& when);
  // What check_nothing_left would complain about, or "".
  std::string leftovers() const;
  // Told the message of a fatal end that nobody expected. Without one the process prints it and
  // aborts.
  static std::function<void(const std::string&)> failure_handler;

  // ---- Faults and memory.

  // The n-th call of the kind from now on (1: the next) fails; only once. `error` 0: the usual one.
  void fail_nth(Fault kind, u64 nth, int error = 0);
  void fail_always(Fault kind, int error = 0);
  void clear_fault(Fault kind);
  void clear_faults();
  // Whether the fault that fail_nth asked for came to pass.
  bool fault_reached(Fault kind) const;
  u64 calls(Fault kind) const;  // so far
  // Caches have nothing to give: pools live on their reserves, other allocations go on.
  void set_memory_pressure(bool on);
  // A Normal allocation may now wait for memory: in `percent` of them a write of one page at
  // `sector` of `device` (a node, usually) must complete first, sent by the allocating task or by a
  // flusher.
  void set_reclaim(plat_devt device, u64 sector, u32 percent);
  void clear_reclaim();
  // Allocations from the heap that may sleep do so until it is let go.
  void hold_heap(bool on);
  u64 heap_bytes() const;  // live, of the driver
  std::size_t live_blocks() const;

  UserBuffer user(std::span<const u8> data);
  UserBuffer user(u64 bytes);
  template <typename T>
  UserBuffer user_copy(const T& value) {
    return user(std::span(reinterpret_cast<const u8*>(&value), sizeof(value)));
  }
  static constexpr u64 kBadUserAddress = 0x10;
  // Pins take at most this many pages.
  void set_pin_limit(u64 pages);

  // ---- Log and parameters.

  Log& log();

  // ---- Devices, files.

  Device* add_device(const DeviceOptions& options);
  Device* device(const std::string& name) const;
  Device* device(plat_devt number) const;

  // Makes an empty file system for a device or a node ("0": none below it, as tmpfs). `blocks` 0:
  // as many as fit.
  FileSystem* add_fs(const std::string& name, plat_devt device, u64 blocks = 0);
  FileSystem* fs(const std::string& name) const;
  // In a task or before the run. Mounting opens the device exclusively. 0 or a negative error.
  int mount(FileSystem* fs, const std::string& path);
  int mount(FileSystem* fs, plat_devt device,
            const std::string& path);  // another device below it than before
  int unmount(FileSystem* fs);

  // As a process would; each sleeps. 0, bytes, or a negative error.
  int make_dir(const std::string& path);
  int make_symlink(const std::string& target, const std::string& path);
  int make_node_file(const std::string& path, int mode, plat_devt device);
  int write_file(const std::string& path, std::span<const u8> data, bool sync = false);
  int write_at(const std::string& path, u64 position, std::span<const u8> data, bool sync = false);
  int sync_file(const std::string& path);
  int sync_all();
  int read_file(const std::string& path, Bytes* data);
  // Contents without a request (page cache, then the device); no switch, any context.
  bool peek_file(const std::string& path, Bytes* data) const;
  bool exists(const std::string& path) const;
  int unlink(const std::string& path);
  std::vector<std::string> list_dir(const std::string& path) const;

  // ---- Requests to nodes and devices, from the calling task, opened or not.

  int read(plat_devt device, u64 sector, u32 bytes, Bytes* data);
  int write(plat_devt device, u64 sector, std::span<const u8> data, bool fua = false);
  int discard(plat_devt device, u64 sector, u32 bytes);
  int write_zeroes(plat_devt device, u64 sector, u32 bytes);
  int flush(plat_devt device);
  Io submit(plat_devt device, const Request& request);
  // A caller's request that is not sent: hand it to driver functions. Complete it
  // (snbf_plat_bio_complete, or through the driver) or give it back with drop_bio. `io` tells its
  // end.
  plat_bio* make_bio(Op op, u64 sector, u32 bytes, plat_devt device = dev(100, 0),
                     Io* io = nullptr);
  void drop_bio(plat_bio* bio);
  // Sends such a request to the device that it was made for.
  void send_bio(plat_bio* bio);
  static void set_bio_data(plat_bio* bio, std::span<const u8> data);
  static Bytes bio_data(plat_bio* bio);

  // 0 or a negative error. mode: PLAT_MODE_READ | PLAT_MODE_WRITE.
  int open_node(plat_devt device, int mode, OpenNode* node);
  int close_node(OpenNode* node);
  int node_ioctl(const OpenNode& node, unsigned cmd, unsigned long arg);
  bool disk_exists(plat_devt device) const;
  u64 disk_sectors(plat_devt device) const;
  bool disk_read_only(plat_devt device) const;
  // Every disk that appears is opened, read and closed by a task, as udev does.
  void set_udev(bool on);

  // ---- The driver.

  // In a task. 0 or the error with which the load failed (nothing may be left then).
  int load_driver(const DriverParams& params = {});
  // In a task: rmmod. -EWOULDBLOCK while the module is in use; else 0, and nothing may be left.
  int unload_driver();
  // The entries without loading: for tests of parts that need nodes or /proc files.
  void use_driver();
  // Other entries than the real driver's, and loading what they are.
  void set_entries(const Entries& entries);
  int load_module();
  bool driver_loaded() const;
  int module_references() const;
  void set_module_going(bool going);

  // The control device: open, one ioctl, close; the record is copied to user memory and back.
  int ioctl(unsigned cmd, void* record, std::size_t bytes);
  int ioctl_at(unsigned cmd, u64 user_address);
  void* open_control(int* error);
  int control_ioctl(void* file, unsigned cmd, u64 argument);
  s64 control_read(void* file, u64 to_user, u64 bytes);
  s64 control_write(void* file, u64 from_user, u64 bytes);
  int close_control(void* file);
  int control_major() const;  // -1: not registered

  // "/proc/..." or relative to it. 0 or a negative error.
  int read_proc(const std::string& path, std::string* text);
  std::string proc(const std::string& path);  // the text, or "<error -2>"
  int write_proc(const std::string& path, std::string_view text);
  bool proc_exists(const std::string& path) const;
  std::vector<std::string> list_proc(const std::string& path) const;

  // ---- The end of the power.

  // Ends the run here; never comes back when called in a task.
  void power_cut();
  void power_cut_at_step(u64 step);
  void power_cut_at_us(u64 time_us);
  // After the run. After a power cut: writes that were not durable are kept or lost (or torn) at
  // random.
  Images take_images();
  Images take_images(u64 seed);

  // ---- Stacks.

  // Deepest use of a stack by the driver since the start, in bytes, by name of the task.
  std::map<std::string, std::size_t> stack_use() const;

  Kernel* internals() { return kernel_.get(); }

 private:
  friend struct Kernel;
  std::unique_ptr<Kernel> kernel_;
  std::vector<std::unique_ptr<Device>> devices_;
  std::vector<std::unique_ptr<FileSystem>> filesystems_;
};

}  // namespace snbf::sim
