// The simulated kernel inside. One file a service implements it; this header is what they share.
#pragma once

#include <cerrno>
#include <deque>
#include <list>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "fiber.h"
#include "sim.h"

namespace snbf::sim {
struct BioLists;
}

// A task, an interrupt included: those are fibers too, so that they run beside tasks as on another
// processor.
struct plat_task {
  enum class State { Runnable, Blocked, Dead };

  snbf::sim::u32 id = 0;
  int pid = 0;
  char name[16] = {};
  State state = State::Runnable;
  snbf::sim::u64 priority = 0;
  bool irq = false;         // runs in interrupt context
  bool foreground = false;  // the run ends when all of these have ended
  bool kthread = false;     // started by the driver
  int references = 0;
  snbf::sim::Fiber fiber;
  std::function<void()> body;
  std::function<void()> irq_work;  // the next interrupt that this fiber serves

  // What it waits for, for the report of a deadlock.
  const char* wait_what = nullptr;
  const void* wait_object = nullptr;
  const char* wait_name = nullptr;
  plat_task* wait_owner = nullptr;
  plat_task* wait_next = nullptr;
  bool timed_out = false;
  snbf::sim::u64 timer = 0;  // grows with each sleep: older timers are void

  bool prepared = false;  // of a wait queue: a wake-up since then is remembered
  bool woken = false;
  int idle_sleep = 0;
  struct WaitqState* wait_queue = nullptr;

  std::vector<struct SpinState*> spins;
  int irqs_off = 0;
  int noio = 0;
  bool serves_writes = false;
  bool in_reclaim = false;
  int quiet = 0;
  bool prepared_yield = false;  // gave the processor up and has not run since
  bool polling = false;         // only looks whether something has changed

  int plug_depth = 0;
  std::vector<plat_bio*> plugged;
  snbf::sim::BioLists* bio_lists = nullptr;  // while inside a submit function
  int submit_depth = 0;
  int fs_depth = 0;

  const char* driver_base = nullptr;  // stack where the driver was entered
  const char* stack_floor = nullptr;
  std::size_t driver_deepest = 0;
  snbf::sim::u64 slice_steps = 0;  // points since somebody else ran
};

// Storage of the contract's embedded objects.
struct WaitList {
  plat_task* head;
  plat_task* tail;
};
struct SpinState {
  snbf::sim::u64 magic;
  const char* name;
  plat_task* owner;
  WaitList waiters;
  snbf::sim::u64 plain, in_irq;  // how it was ever taken
};
struct SemState {
  snbf::sim::u64 magic;
  snbf::sim::s64 count;
  WaitList waiters;
  plat_task* last;
};
struct WaitEntryState {
  snbf::sim::u64 magic;
  WaitEntryState *next, *prev;
  plat_task* task;
  struct WaitqState* queue;
};
struct WaitqState {
  snbf::sim::u64 magic;
  WaitEntryState *head, *tail;
};
struct CompletionState {
  snbf::sim::u64 magic;
  snbf::sim::u64 done;
  WaitList waiters;
};
static_assert(sizeof(SpinState) <= sizeof(plat_spin));
static_assert(sizeof(SemState) <= sizeof(plat_semaphore));
static_assert(sizeof(WaitEntryState) <= sizeof(plat_wait_entry));
static_assert(sizeof(WaitqState) <= sizeof(plat_waitq));
static_assert(sizeof(CompletionState) <= sizeof(plat_completion));

struct plat_bio {
  enum class Kind { Caller, Clone, Own };
  struct Piece {
    unsigned char* page;  // begins at a multiple of 4096
    snbf::sim::u32 offset;
    snbf::sim::u32 bytes;
  };

  snbf::sim::u64 magic = 0;
  snbf::sim::u64 id = 0;
  Kind kind = Kind::Caller;
  bool borrows_pages = false;  // they are the driver's, or of another request
  snbf::sim::Op op = snbf::sim::Op::Read;
  bool fua = false;
  bool preflush = false;
  snbf::sim::u64 sector = 0;
  snbf::sim::u32 bytes = 0;
  snbf::sim::u32 left = 0;
  plat_devt sent_to = 0;                  // the number that it was sent to
  snbf::sim::BlockDev* target = nullptr;  // where it is or goes
  plat_disk* node = nullptr;              // the disk whose driver owns it now
  plat_bio* next = nullptr;               // the driver's link
  std::vector<Piece> pieces;

  int references = 1;
  bool in_flight = false;
  bool split = false;  // a piece of a larger request
  bool completed = false;
  int status = 0;
  const plat_bio_hooks* hooks = nullptr;
  void* context = nullptr;
  plat_bio* original = nullptr;
  int clones = 0;
  std::function<void(plat_bio*, int error)> on_end;
};

namespace snbf::sim {

struct Event {
  u64 time_us;
  u64 order;
  Task* task;  // a timer of this one, or null
  u64 timer;
  bool background;                // does not keep a run going
  std::function<void()> handler;  // runs in interrupt context
};

// A sleeping lock of the kernel's own.
struct Mutex {
  explicit Mutex(std::string what = "") : name(std::move(what)) {}
  std::string name;
  Task* owner = nullptr;
  WaitList waiters = {};
};

struct FaultState {
  u64 calls = 0;
  u64 fail_at = 0;
  bool always = false;
  bool reached = false;
  int error = 0;
};

struct BlockState;
struct FilesState;
struct ProcState;
struct ControlState;

struct Rng {
  u64 state;
  u64 next() {
    state += 0x9E3779B97F4A7C15ull;
    u64 z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  u64 below(u64 n) { return n == 0 ? 0 : next() % n; }
  bool one_in(u64 n) { return below(n) == 0; }
};

struct Kernel {
  explicit Kernel(Sim& owner, const Options& options);
  ~Kernel();

  Sim& sim;
  Options options;

  // ---- sched.cpp
  std::vector<Task*> tasks;  // all but the dead, in order of birth
  std::vector<Task*> idle_irqs;
  std::vector<Task*> spare_tasks;
  std::vector<std::unique_ptr<Task>> task_storage;
  Task* current = nullptr;
  Task* interrupted = nullptr;  // who `current` is said to be in an interrupt
  Fiber main;
  bool running = false;
  u64 step = 0;
  u64 next_stop = 0;  // step at which the scheduler looks again
  u64 change_at = 0;  // step of the next change of priority
  u64 change_mean = 0;
  u64 time_base_us = 1'000'000;  // time is this plus the steps
  u64 low_priority = 0;
  u32 next_task = 1;
  int next_pid = 200;
  u64 event_order = 0;
  std::vector<Event> events;  // a heap, earliest first
  u64 foreground_alive = 0;
  u64 irqs_alive = 0;
  WaitList pollers = {};
  bool progress = false;
  u64 hash = 0xcbf29ce484222325ull;
  Rng sched_rng, io_rng, test_rng;
  std::map<std::string, std::size_t> stack_by_name;
  u64 power_cut_step = ~0ull;
  u64 power_cut_us = ~0ull;
  bool power_off = false;
  bool dead = false;  // fatal or without power: nothing runs any more
  std::string fatal_text;
  std::string expected_fatal;
  bool has_fatal = false;

  u64 now_us() const { return time_base_us + step; }
  void mix(u64 value) { hash = (hash ^ value) * 0x100000001b3ull; }
  RunEnd run();
  void point();
  void reschedule();
  void check_stack(const char* here);
  Task* new_task(const std::string& name, std::function<void()> body, int pid);
  void task_body();
  [[noreturn]] void end_current();
  void switch_to_main(bool dying = false);
  Task* pick();
  void demote(Task* task);
  void run_task(Task* task);
  bool deliver_events();
  void add_event(u64 delay_us, std::function<void()> handler, bool background = false);
  void push_event(Event event);
  void start_irq(std::function<void()> handler);
  // Blocks the current task; false when `limit_us` (below 0: none) passed first. Neither checks nor
  // unplugs.
  bool block(const char* what, const void* object, const char* name, Task* owner, s64 limit_us = -1,
             bool background = false);
  // The same as a sleep: sends the plugged requests first.
  bool sleep(const char* what, const void* object, const char* name, Task* owner, s64 limit_us = -1,
             bool background = false);
  void wake(Task* task);
  void wait_on(WaitList& list);
  void wake_one(WaitList& list);
  void wake_all(WaitList& list);
  void remove_waiter(WaitList& list, Task* task);
  void sleep_in(WaitList& list, const char* what, const void* object, const char* name,
                Task* owner = nullptr, s64 limit_us = -1);
  bool in_interrupt() const { return current != nullptr && current->irq; }
  void might_sleep(const char* call);
  void yield();
  void lock(Mutex& mutex);
  void unlock(Mutex& mutex);
  [[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));
  [[noreturn]] void fatal_text_end(std::string text);
  void set_fatal(std::string text);
  std::string describe_tasks() const;
  std::string describe_task(const Task& task) const;
  std::string describe_lists(const Task& task) const;
  std::string describe_held() const;
  void task_get(Task* task) { ++task->references; }
  void task_put(Task* task);

  // ---- log.cpp
  Log log;
  void print(const char* line);

  // ---- faults.cpp
  FaultState faults[static_cast<int>(Fault::kCount)];
  // Counts a call of the driver; the error with which it must fail, or 0.
  int fault(Fault kind, int usual_error);
  bool fault_memory(Fault kind);

  // ---- memory.cpp
  std::unique_ptr<MemoryState> memory;
  bool memory_pressure = false;
  void reclaim(plat_alloc_mode mode);
  // The same by a helper of the kernel that the current task waits for.
  void reclaim_in_helper(const char* helper);
  void reclaim_in(const char* helper, const Request& request);
  plat_devt reclaim_device = 0;
  u64 reclaim_sector = 0;
  u32 reclaim_percent = 0;
  bool reclaim_active = false;
  Task* reclaim_task = nullptr;
  void* allocate(std::size_t bytes, int kind, const char* what);
  void release(void* block, int kind, const char* call);
  bool is_freed(const void* address) const;
  void memory_leftovers(std::string& text) const;
  void check_freed_range(const void* begin, std::size_t bytes, const char* call);

  // ---- user.cpp
  struct UserRegion {
    Bytes data;
    u64 fault_at = ~0ull;
    bool untouched = false;
    bool read_only = false;
  };
  std::map<u64, UserRegion> user;
  u64 next_user = 0x5550'0000'0000ull;
  u64 pin_limit = ~0ull;
  std::set<plat_user_pin*> pins;
  UserRegion* user_region(u64 address, u64* offset);
  // Bytes that may be accessed from `address` on, at most `bytes`.
  u64 user_accessible(u64 address, u64 bytes, bool write, bool may_fault_in);

  // ---- block.cpp, device.cpp, disk.cpp
  std::unique_ptr<BlockState> block_state;
  BlockDev* find_dev(plat_devt number) const;
  plat_bio* new_bio(plat_bio::Kind kind);
  void free_bio(plat_bio* bio);
  plat_bio* check_bio(const plat_bio* bio, const char* call) const;
  void submit(plat_bio* bio, BlockDev* target);
  void dispatch(plat_bio* bio);
  bool can_drain(const BlockDev& dev) const;
  int drain(BlockDev& dev, u32 limit_ms);
  // `sleeps`: another thread sends what a sleeper has left, so nothing of it completes in place.
  void flush_plug(Task* task, bool sleeps = true);
  bool refuse(plat_bio* bio);
  void device_start(plat_bio* bio, bool may_end_here);
  void device_complete(plat_bio* bio, u64 seen, int error);
  void end_bio(plat_bio* bio, int error);
  void finish_caller(plat_bio* bio, int error);
  void node_submit(plat_bio* bio);
  plat_bio* make_caller_bio(const Request& request, plat_devt sent_to);
  void free_pieces(plat_bio* bio);
  int open_bdev(plat_devt number, int mode, plat_open_kind kind, void* holder, plat_bdev** bdev,
                bool by_driver);
  int close_bdev(plat_bdev* bdev);
  plat_bdev* check_bdev(plat_bdev* bdev, const char* call) const;
  void block_leftovers(std::string& text) const;
  int submit_and_wait(plat_devt device, const Request& request, Bytes* data);

  // ---- files.cpp, vfs.cpp
  std::unique_ptr<FilesState> files;
  void files_leftovers(std::string& text) const;
  int freeze_fs(BlockDev* dev);
  int thaw_fs(BlockDev* dev);

  // ---- proc.cpp, control.cpp, task.cpp
  std::unique_ptr<ProcState> proc;
  std::unique_ptr<ControlState> control;
  void proc_leftovers(std::string& text) const;
  void control_leftovers(std::string& text) const;
  Entries entries;
  bool driver_loaded = false;
  bool module_going = false;
  int module_refs = 0;
  bool udev = false;
  u64 task_references = 0;
};

// The kernel of the running test; one at a time.
Kernel& kernel();
Kernel* kernel_or_null();
// A platform call begins: a place to switch. Ends the run when it is called from outside of a task.
Kernel& enter(const char* call);
// The same for calls that may sleep.
Kernel& enter_sleeping(const char* call);

// Kinds of tracked memory.
enum BlockKind { kHeap, kVirt, kPage, kObject, kPool, kCache, kOther };

constexpr u64 kMagic = 0x534E4246'0BADCAFEull;

// While the driver runs: its depth is measured from here.
class InDriver {
 public:
  explicit InDriver(Kernel& kernel)
      : task_(kernel.current), base_(task_->driver_base), floor_(task_->stack_floor) {
    if (base_ == nullptr && !SNBF_SIM_ASAN) {
      task_->driver_base = static_cast<const char*>(__builtin_frame_address(0));
      task_->stack_floor = task_->driver_base - kDriverStackBytes;
    }
  }
  ~InDriver() {
    task_->driver_base = base_;
    task_->stack_floor = floor_;
  }
  InDriver(const InDriver&) = delete;
  InDriver& operator=(const InDriver&) = delete;

 private:
  Task* task_;
  const char* base_;
  const char* floor_;
};

}  // namespace snbf::sim
