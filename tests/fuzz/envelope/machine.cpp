// A program's life: the driver is loaded, each caller takes its steps, the driver is unloaded.
#include "envelope/machine.h"

#include <algorithm>

#include "base/errno.h"
#include "block/node.h"

namespace snbf::fuzz {

using sim::Fault;

namespace {

constexpr u64 kPartitionBytes = 1 << 20;
constexpr u64 kStoreBytes = 2 << 20;
constexpr u64 kTickUs = 10'000;
constexpr sim::DriverParams kParams = {.debug = 0, .max_blk_minor = kHighestMinor};

// Not DiskAlloc: a snap that gets no disk stays in the table as a freed record.
constexpr Fault kFaults[] = {
    Fault::Heap,           Fault::Virt,           Fault::Page,         Fault::CacheCreate,
    Fault::PoolCreate,     Fault::PoolAlloc,      Fault::BioAlloc,     Fault::BioClone,
    Fault::UserPin,        Fault::AnyAllocation,  Fault::FileOpen,     Fault::FileRead,
    Fault::FileWrite,      Fault::FileSync,       Fault::ShortRead,    Fault::ShortWrite,
    Fault::ZeroWrite,      Fault::PathLookup,     Fault::ParentLock,   Fault::Mknod,
    Fault::Unlink,         Fault::BdevOpen,       Fault::BdevFreeze,   Fault::ThreadStart,
    Fault::ProcCreate,     Fault::DiskAdd,        Fault::DirectWrite,  Fault::CopyToUser,
    Fault::ChrdevRegister, Fault::BlkdevRegister, Fault::CopyFromUser, Fault::DeviceRead,
    Fault::DeviceWrite};

FilterNode* filter_at(u32 minor) {
  Node* node = snbf_blkdev_arr == nullptr ? nullptr : find_node(minor);
  return node != nullptr && node->dev_type == kFilterNode ? &as_filter(*node) : nullptr;
}

}  // namespace

Geometry geometry_of(u32 minor) {
  const FilterNode* filter = filter_at(minor);
  if (filter == nullptr) return {};
  return {filter->extent_size, filter->incr_bmp_size};
}

Machine::Machine(std::vector<Step> steps, bool has_two_callers, u64 seed)
    : sim_({.seed = seed, .step_limit = kStepLimit}),
      steps_(std::move(steps)),
      has_two_(has_two_callers),
      has_faults_(std::any_of(steps_.begin(), steps_.end(),
                              [](const Step& step) { return step.action() == kFault; })) {}

void Machine::need(bool holds, const char* what, int detail) {
  if (!holds) sim_.fatal(std::string("envelope: ") + what + " (" + std::to_string(detail) + ")");
}

// ---- A program's life

void Machine::live() {
  sim_.add_device({.name = "sda1", .bytes = kPartitionBytes});
  sim_.add_device({.name = "sdc1", .bytes = 5 * 4096 + 512});
  sim::Device* store = sim_.add_device({.name = "sdb1", .bytes = kStoreBytes});
  need(sim_.mount(sim_.add_fs("store", store->number()), "/store") == 0, "no store");
  need(sim_.load_driver(kParams) == 0, "no driver");
  if (has_two_) {
    sim::Task* second = sim_.spawn("second", [this] { take_steps(true); });
    take_steps(false);
    sim_.join(second);
  } else {
    take_steps(false);
  }
  sim_.clear_faults();
  look();
  int rc = sim_.unload_driver();
  // Nodes that lie on nodes keep the module, and go in their order.
  for (int node = 0; rc == -EWOULDBLOCK && node <= kHighestMinor; ++node) {
    take_nodes_down();
    rc = sim_.unload_driver();
  }
  need(rc == 0, "the driver does not unload", rc);
}

void Machine::take_steps(bool second) {
  Caller caller;
  for (const Step& step : steps_) {
    if (has_two_ && step.is_second_callers() != second) continue;
    sim_.wait_until([this] { return !is_loading_; });
    ++busy_;
    take(caller, step);
    --busy_;
  }
  close(caller);
}

void Machine::take(Caller& caller, const Step& step) {
  const u8 action = step.action();
  if (action < kUnknownCommand) return command(step, kCommands[action]);
  switch (action) {
    case kUnknownCommand:
      return command(step,
                     kCommands[step.byte[4] % std::size(kCommands)] ^ 1u << (step.byte[5] & 31));
    case kOpen:
      return open(caller, step);
    case kClose:
      return close(caller);
    case kRead:
      return read(caller, step);
    case kWrite:
    case kDiscard:
      return write(caller, step);
    case kFlush:
      if (caller.node) sim_.flush(sim::dev(100, caller.minor));
      return;
    case kFault:
      return set_fault(step);
    case kReload:
      return reload();
    case kProc:
      sim_.proc("/proc/snbf/snbf" + std::to_string(step.byte[1] & 7) + "/" +
                (step.byte[2] & 1 ? "snaps" : "use_cnt"));
      return;
    case kLook:
      return look();
    case kNodeIoctl:
      if (caller.node) sim_.node_ioctl(caller.node, step.wide(2), step.byte[4]);
      return;
    case kWriteProc:
      sim_.write_proc("/proc/snbf/debug", step.byte[1] & 1 ? "4\n" : "0\n");
      return;
    case kTick:
      return tick(step);
    default:
      sim_.sleep_us(100u << (step.byte[1] & 15));
  }
}

// Time passes only where all wait, so two callers seldom do anything at once but what they begin at a tick.
// Byte 1: how often others may run first.
void Machine::tick(const Step& step) {
  sim_.sleep_us(kTickUs - sim_.now_us() % kTickUs);
  for (int point = 0; point < (step.byte[1] & 63); ++point) sim_.point();
}

// Byte 2, bit 0: for reading only.
void Machine::open(Caller& caller, const Step& step) {
  close(caller);
  const u32 minor = minor_of(step);
  if (minor > kHighestMinor) return;
  const int mode = PLAT_MODE_READ | (step.byte[2] & 1 ? 0 : PLAT_MODE_WRITE);
  if (sim_.open_node(sim::dev(100, minor), mode, &caller.node) != 0) return;
  caller.minor = minor;
  caller.geometry = geometry_of(minor);
}

void Machine::close(Caller& caller) {
  if (caller.node) sim_.close_node(&caller.node);
}

// Bytes 2 and 3: the first sector; byte 4: sectors less one.
Machine::Sectors Machine::sectors_of(const Caller& caller, const Step& step) {
  const u64 all = sim_.disk_sectors(sim::dev(100, caller.minor));
  const u64 first = step.wide(2) % all;
  return {first, std::min<u64>(1 + step.byte[4], all - first)};
}

// Byte 1, bit 3: past the cache of the device.
void Machine::write(Caller& caller, const Step& step) {
  if (!caller.node) return;
  const auto [first, count] = sectors_of(caller, step);
  const u32 bytes = static_cast<u32>(count * 512);
  const Marks::Moment moments[] = {marks_[caller.minor][0].now(), marks_[caller.minor][1].now()};
  const plat_devt device = sim::dev(100, caller.minor);
  const int rc = step.action() == kDiscard ? sim_.discard(device, first, bytes)
                                           : sim_.write(device, first, Bytes(bytes, step.byte[5]),
                                                        (step.byte[1] & 8) != 0);
  const u64 extent_bytes = caller.geometry.extent_bytes;
  if (rc != 0 || extent_bytes == 0) return;
  Extents extents;
  for (u64 n = first * 512 / extent_bytes; n <= ((first + count) * 512 - 1) / extent_bytes; ++n)
    extents.set(n);
  for (u32 type = 0; type < 2; ++type) marks_[caller.minor][type].add(moments[type], extents);
}

void Machine::read(Caller& caller, const Step& step) {
  if (!caller.node) return;
  const auto [first, count] = sectors_of(caller, step);
  Bytes data;
  sim_.read(sim::dev(100, caller.minor), first, static_cast<u32>(count * 512), &data);
}

// Byte 1: the kind; byte 2: which call from now on; byte 3: none fails any more.
void Machine::set_fault(const Step& step) {
  if (step.byte[3] >= 0xF0) return sim_.clear_faults();
  sim_.fail_nth(kFaults[step.byte[1] % std::size(kFaults)], 1 + (step.byte[2] & 63));
}

std::vector<Marks::Taking> Machine::begin_taking_all() {
  std::vector<Marks::Taking> takings;
  for (NodeMarks& of_node : marks_) {
    for (Marks& of_type : of_node) takings.push_back(of_type.begin_taking());
  }
  return takings;
}

void Machine::end_taking_all(const std::vector<Marks::Taking>& takings, bool all_is_left) {
  auto taking = takings.begin();
  for (NodeMarks& of_node : marks_) {
    for (Marks& of_type : of_node) {
      of_type.end_taking(*taking, all_is_left ? taking->taken : Extents{}, Extents{}.set());
      ++taking;
    }
  }
}

// A load that fails takes the control device away, so nobody may be about to open it.
void Machine::reload() {
  if (is_loading_) return;
  const auto takings = begin_taking_all();
  is_loading_ = true;
  sim_.wait_until([this] { return busy_ == 1; });
  const int rc = sim_.unload_driver();
  need(rc == 0 || rc == -EWOULDBLOCK, "a strange answer of the unload", rc);
  end_taking_all(takings, rc != 0);
  if (rc == 0 && sim_.load_driver(kParams) != 0) {
    need(has_faults_, "the driver does not load");
    sim_.clear_faults();
    need(sim_.load_driver(kParams) == 0, "the driver does not load");
  }
  is_loading_ = false;
}

void Machine::take_nodes_down() {
  for (u32 minor = 0; minor <= kHighestMinor; ++minor) {
    snbf_minor_cmd record = {minor};
    sim_.ioctl(SNBF_STOP_NODE, &record, sizeof(record));
    sim_.ioctl(SNBF_DEL_NODE, &record, sizeof(record));
  }
}

// ---- Bitmaps

void Machine::look() {
  for (u32 minor = 0; minor <= kHighestMinor; ++minor) {
    for (const u32 type : {SNBF_BMP_DIFF, SNBF_BMP_INCR}) look_at(minor, type);
  }
}

void Machine::look_at(u32 minor, u32 type) {
  const Geometry geometry = geometry_of(minor);
  if (geometry.extent_bytes == 0) return;
  const Marks::Moment began = marks_[minor][type].now();
  const Extents wanted = marks_[minor][type].must();
  sim::UserBuffer buffer = sim_.user(geometry.bitmap_bytes);
  snbf_bmp_cmd record = {minor, type, static_cast<int>(geometry.bitmap_bytes), 0, buffer.address()};
  const int rc = sim_.ioctl(SNBF_GET_BMP, &record, sizeof(record));
  const Bytes found = buffer.bytes();
  buffer.unmap();
  need(rc == 0 || has_two_ || has_faults_, "a bitmap that cannot be read", rc);
  if (rc == 0 && marks_[minor][type].kept_since(began)) {
    need(!lacks(found, wanted), "a change that is not marked", static_cast<int>(minor));
  }
}

}  // namespace snbf::fuzz
