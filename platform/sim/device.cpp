// Simulated devices: when requests start and complete.
#include <algorithm>
#include <cstring>

#include "block_dev.h"

namespace snbf::sim {

namespace {

bool overlaps(u64 a, u64 a_count, u64 b, u64 b_count) { return a < b + b_count && b < a + a_count; }

bool is_data_write(const plat_bio& bio) { return bio.op != Op::Read && bio.bytes > 0; }

Device::Arrival arrival_of(const plat_bio& bio) {
  u64 mark = 0;
  if (bio.op == Op::Write && bio.bytes > 0) {
    const plat_bio::Piece& piece = bio.pieces.front();
    memcpy(&mark, piece.page + piece.offset, sizeof(mark));
  }
  return {bio.op, bio.sector, bio.bytes, mark, bio.kind == plat_bio::Kind::Own};
}

int failure_of(const BlockDev& dev, const plat_bio& bio) {
  const u64 sectors = bio.bytes / kSectorBytes;
  if (bio.sector > dev.sectors || sectors > dev.sectors - bio.sector) return -EIO;
  for (const FailRange& bad : dev.failures) {
    const bool same = bad.op == bio.op || (bad.op == Op::Flush && bio.preflush);
    if (same && (bio.bytes == 0 || overlaps(bad.sector, bad.sectors, bio.sector, sectors))) {
      return bad.error;
    }
  }
  return 0;
}

// A flush covers what had completed when it was sent, not what completes meanwhile.
int perform(Kernel& k, BlockDev& dev, plat_bio& bio, u64 covers) {
  const u64 sectors = bio.bytes / kSectorBytes;
  if (const int error = failure_of(dev, bio); error != 0) return error;
  Storage& storage = *dev.storage;
  if (bio.preflush) storage.harden_up_to(covers);
  if (bio.bytes == 0) return 0;
  const bool durable = bio.fua || !dev.options.write_cache;
  const u64 number = dev.next_write++;
  u64 sector = bio.sector;
  if (bio.op == Op::Read || bio.op == Op::Write) {
    for (plat_bio::Piece& piece : bio.pieces) {
      u8* data = piece.page + piece.offset;
      if (k.is_freed(piece.page))
        k.fatal("a request in flight on '%s' uses a freed page", dev.name.c_str());
      if (bio.op == Op::Read) {
        storage.read(sector, data, piece.bytes);
      } else {
        storage.write(number, sector, data, piece.bytes);
      }
      sector += piece.bytes / kSectorBytes;
    }
  } else {
    const Page zeroes = {};
    for (u64 done = 0; done < bio.bytes; done += 4096, sector += 8) {
      storage.write(number, sector, zeroes.data(), std::min<u64>(4096, bio.bytes - done));
    }
  }
  if (durable && bio.op != Op::Read) storage.harden_range(bio.sector, sectors);
  return 0;
}

// What a request that fails has done all the same.
void tear(Kernel& k, BlockDev& dev, plat_bio& bio) {
  const u64 sectors = bio.bytes / kSectorBytes;
  if (bio.sector > dev.sectors || sectors > dev.sectors - bio.sector) return;
  enum { Nothing, All, Some, kFates };
  const u64 fate = k.io_rng.below(kFates);
  if (bio.bytes == 0 || fate == Nothing) return;
  ++dev.counts.torn;
  const bool writes = bio.op != Op::Read;
  const u64 number = writes ? dev.next_write++ : 0;
  const auto moves = [&] { return fate == All || k.io_rng.one_in(2); };
  const auto move = [&](u64 sector, u8* data) {
    if (writes) {
      dev.storage->write(number, sector, data, kSectorBytes);
    } else if (k.io_rng.one_in(2)) {
      dev.storage->read(sector, data, kSectorBytes);
    } else {
      memset(data, static_cast<int>(k.io_rng.below(256)), kSectorBytes);
    }
  };
  u64 sector = bio.sector;
  if (bio.op != Op::Read && bio.op != Op::Write) {
    Sector zeroes = {};
    for (; sector < bio.sector + sectors; ++sector) {
      if (moves()) move(sector, zeroes.data());
    }
    return;
  }
  for (plat_bio::Piece& piece : bio.pieces) {
    if (k.is_freed(piece.page))
      k.fatal("a request in flight on '%s' uses a freed page", dev.name.c_str());
    for (u32 done = 0; done < piece.bytes; done += kSectorBytes, ++sector) {
      if (moves()) move(sector, piece.page + piece.offset + done);
    }
  }
}

}  // namespace

// True: it has been completed, and is perhaps gone.
bool Kernel::refuse(plat_bio* bio) {
  BlockDev& dev = *bio->target;
  if (dev.options.in_place_percent == 0) return false;
  const int error = failure_of(dev, *bio);
  if (error == 0 || io_rng.below(100) >= dev.options.in_place_percent) return false;
  ++dev.counts.refused;
  dev.history.push_back(
      {bio->op, bio->sector, bio->bytes, bio->fua, bio->preflush, error, true, now_us(), now_us()});
  mix(bio->id);
  end_bio(bio, error);
  return true;
}

void Kernel::device_start(plat_bio* bio, bool may_end_here) {
  BlockDev& dev = *bio->target;
  if (dev.zoned) fatal("a request reaches the zoned device '%s'", dev.name.c_str());
  while (dev.options.queue_depth > 0 && dev.counts.in_flight >= dev.options.queue_depth) {
    sleep_in(dev.depth_waiters, "a free place in the queue of", &dev, dev.name.c_str());
  }
  if (dev.on_arrival) dev.on_arrival(arrival_of(*bio));
  Device::Counts& counts = dev.counts;
  counts.in_flight_max = std::max(counts.in_flight_max, ++counts.in_flight);
  const u64 sectors = bio->bytes / kSectorBytes;
  switch (bio->op) {
    case Op::Read:
      ++counts.reads;
      counts.read_sectors += sectors;
      break;
    case Op::Write:
    case Op::WriteZeroes:
      ++counts.writes;
      counts.write_sectors += sectors;
      break;
    case Op::Discard:
    case Op::SecureErase:
      ++counts.discards;
      break;
    case Op::Flush:
      break;
  }
  if (bio->preflush) ++counts.flushes;
  if (bio->fua) ++counts.fua;
  const u64 seen = dev.history.size();
  dev.history.push_back(
      {bio->op, bio->sector, bio->bytes, bio->fua, bio->preflush, 0, false, now_us(), 0});
  dev.flying.push_back(bio);
  if (bio->preflush) dev.flush_covers[bio->id] = dev.next_write - 1;

  int error = 0;
  FaultState* fault_state = nullptr;
  if (bio->preflush) fault_state = &faults[static_cast<int>(Fault::DeviceFlush)];
  if (is_data_write(*bio)) fault_state = &faults[static_cast<int>(Fault::DeviceWrite)];
  if (bio->op == Op::Read) fault_state = &faults[static_cast<int>(Fault::DeviceRead)];
  if (fault_state != nullptr) {
    error = fault(static_cast<Fault>(fault_state - faults), -EIO);
  }
  if (dev.held && error == 0) {
    dev.held_bios.push_back({bio, seen});
    return;
  }
  if (may_end_here && dev.options.in_place_percent != 0 &&
      io_rng.below(100) < dev.options.in_place_percent) {
    ++counts.in_place;
    device_complete(bio, seen, error);
    return;
  }
  const u64 spread = dev.options.latency_max_us - dev.options.latency_min_us + 1;
  add_event(dev.options.latency_min_us + io_rng.below(spread),
            [this, bio, seen, error] { device_complete(bio, seen, error); });
}

void Kernel::device_complete(plat_bio* bio, u64 seen, int error) {
  BlockDev& dev = *bio->target;
  if (bio->magic != kBioMagic) fatal("a request in flight on '%s' was freed", dev.name.c_str());
  u64 covers = 0;
  if (auto at = dev.flush_covers.find(bio->id); at != dev.flush_covers.end()) {
    covers = at->second;
    dev.flush_covers.erase(at);
  }
  if (error == 0) error = perform(*this, dev, *bio, covers);
  if (error != 0 && dev.options.tears) tear(*this, dev, *bio);
  if (seen < dev.history.size()) {
    dev.history[seen].error = error;
    dev.history[seen].completed = true;
    dev.history[seen].done_us = now_us();
  }
  mix(bio->id);
  dev.flying.erase(std::find(dev.flying.begin(), dev.flying.end(), bio));
  --dev.counts.in_flight;
  --dev.entered;
  wake_all(dev.drain_waiters);
  wake_one(dev.depth_waiters);
  end_bio(bio, error);
}

std::string Kernel::describe_held() const {
  std::string text;
  for (const auto& dev : block_state->devices) {
    if (dev->held_bios.empty()) continue;
    text += "  " + std::to_string(dev->held_bios.size()) + " requests are held back on '" +
            dev->name + "' by the test\n";
  }
  return text;
}

// ---- Device, as tests see it

plat_devt Device::number() const { return dev_->number; }
const std::string& Device::name() const { return dev_->name; }
u64 Device::bytes() const { return dev_->sectors * kSectorBytes; }
std::string Device::path() const { return "/dev/" + dev_->name; }
int Device::openers() const { return dev_->openers; }
Device::Counts Device::counts() const { return dev_->counts; }
const std::vector<Device::Seen>& Device::history() const { return dev_->history; }

Bytes Device::peek(u64 sector, u32 bytes) const {
  Bytes data(bytes);
  dev_->storage->read(sector, data.data(), bytes);
  return data;
}

Bytes Device::durable(u64 sector, u32 bytes) const {
  Bytes data(bytes);
  dev_->storage->read_durable(sector, data.data(), bytes);
  return data;
}

void Device::poke(u64 sector, std::span<const u8> data) {
  dev_->storage->write(0, sector, data.data(), data.size());
}

void Device::on_arrival(std::function<void(const Arrival&)> told) {
  dev_->on_arrival = std::move(told);
}

std::vector<Device::Arrival> Device::under_way() const {
  std::vector<Arrival> arrivals;
  for (const plat_bio* bio : dev_->flying) arrivals.push_back(arrival_of(*bio));
  return arrivals;
}

void Device::hold(bool on) { dev_->held = on; }

std::vector<Device::Held> Device::held() const {
  std::vector<Held> held;
  for (const auto& waiting : dev_->held_bios) {
    const plat_bio& bio = *waiting.bio;
    held.push_back({bio.op, bio.sector, bio.bytes, bio.fua, bio.preflush});
  }
  return held;
}

void Device::release(std::size_t index) {
  Kernel& k = kernel();
  if (index >= dev_->held_bios.size()) k.fatal("Device::release: no such request is held");
  const BlockDev::Waiting waiting = dev_->held_bios[index];
  dev_->held_bios.erase(dev_->held_bios.begin() + static_cast<std::ptrdiff_t>(index));
  k.add_event(1, [&k, waiting] { k.device_complete(waiting.bio, waiting.seen, 0); });
}

void Device::release_all() {
  while (!dev_->held_bios.empty()) release(0);
}

void Device::fail_range(u64 sector, u64 sectors, Op op, int error) {
  dev_->failures.push_back({sector, sectors, op, error});
}
void Device::clear_failures() { dev_->failures.clear(); }

void Device::set_latency(u32 min_us, u32 max_us) {
  dev_->options.latency_min_us = min_us;
  dev_->options.latency_max_us = max_us;
}

void Device::set_ioctl(std::function<int(int, unsigned, unsigned long)> handler) {
  dev_->ioctl = std::move(handler);
}

// A request still on its way has no line any more.
void Device::clear_history() {
  for (const Seen& seen : dev_->history) {
    if (!seen.completed) return;
  }
  dev_->history.clear();
}

}  // namespace snbf::sim
