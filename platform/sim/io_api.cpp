// Requests and openings from outside of the driver; reclaim.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "block_dev.h"
#include "memory_state.h"

namespace snbf::sim {

bool Io::done() const { return state_ != nullptr && state_->done; }
int Io::error() const { return state_->error; }
const Bytes& Io::data() const { return state_->data; }
u64 Io::done_at_us() const { return state_->done_at_us; }

int Io::wait() const {
  Kernel& k = enter_sleeping("Io::wait");
  while (!state_->done) k.sleep_in(state_->waiters, "the end of a request", state_.get(), nullptr);
  return state_->error;
}

namespace {

void end_io(Kernel& k, const std::shared_ptr<Io::State>& state, plat_bio* bio, int error) {
  state->error = error;
  state->done_at_us = k.now_us();
  if (bio->op == Op::Read) state->data = Sim::bio_data(bio);
  state->done = true;
  k.wake_all(state->waiters);
}

}  // namespace

Bytes Sim::bio_data(plat_bio* bio) {
  Bytes data;
  for (const auto& piece : bio->pieces) {
    data.insert(data.end(), piece.page + piece.offset, piece.page + piece.offset + piece.bytes);
  }
  return data;
}

void Sim::set_bio_data(plat_bio* bio, std::span<const u8> data) {
  for (const auto& piece : bio->pieces) {
    const std::size_t bytes = std::min<std::size_t>(piece.bytes, data.size());
    memcpy(piece.page + piece.offset, data.data(), bytes);
    data = data.subspan(bytes);
  }
}

plat_bio* Sim::make_bio(Op op, u64 sector, u32 bytes, plat_devt device, Io* io) {
  Kernel& k = *kernel_;
  Request request{.op = op, .sector = sector, .bytes = bytes};
  plat_bio* bio = k.make_caller_bio(request, device);
  if (io != nullptr) {
    io->state_ = std::make_shared<Io::State>();
    bio->on_end = [&k, state = io->state_](plat_bio* done, int error) {
      end_io(k, state, done, error);
    };
  }
  return bio;
}

void Sim::drop_bio(plat_bio* bio) {
  Kernel& k = *kernel_;
  k.check_bio(bio, "drop_bio");
  if (bio->in_flight) k.fatal("drop_bio() of a request in flight");
  bio->on_end = nullptr;
  k.finish_caller(bio, 0);
}

void Sim::send_bio(plat_bio* bio) {
  Kernel& k = enter_sleeping("send_bio");
  BlockDev* target = k.find_dev(bio->sent_to);
  if (target == nullptr) {
    k.finish_caller(bio, -ENXIO);
  } else {
    k.submit(bio, target);
  }
}

Io Sim::submit(plat_devt device, const Request& request) {
  Kernel& k = enter_sleeping("submit");
  Io io;
  io.state_ = std::make_shared<Io::State>();
  plat_bio* bio = k.make_caller_bio(request, device);
  bio->on_end = [&k, state = io.state_](plat_bio* done, int error) {
    end_io(k, state, done, error);
  };
  send_bio(bio);
  return io;
}

int Kernel::submit_and_wait(plat_devt device, const Request& request, Bytes* data) {
  Io io = sim.submit(device, request);
  const int error = io.wait();
  if (data != nullptr && error == 0) *data = io.data();
  return error;
}

int Sim::read(plat_devt device, u64 sector, u32 bytes, Bytes* data) {
  return kernel_->submit_and_wait(device, {.op = Op::Read, .sector = sector, .bytes = bytes}, data);
}

int Sim::write(plat_devt device, u64 sector, std::span<const u8> data, bool fua) {
  Request request{.op = Op::Write, .sector = sector};
  request.data.assign(data.begin(), data.end());
  request.fua = fua;
  return kernel_->submit_and_wait(device, request, nullptr);
}

int Sim::discard(plat_devt device, u64 sector, u32 bytes) {
  return kernel_->submit_and_wait(device, {.op = Op::Discard, .sector = sector, .bytes = bytes},
                                  nullptr);
}

int Sim::write_zeroes(plat_devt device, u64 sector, u32 bytes) {
  return kernel_->submit_and_wait(device, {.op = Op::WriteZeroes, .sector = sector, .bytes = bytes},
                                  nullptr);
}

int Sim::flush(plat_devt device) {
  return kernel_->submit_and_wait(device, {.op = Op::Flush}, nullptr);
}

// ---- Nodes

int Sim::open_node(plat_devt device, int mode, OpenNode* node) {
  Kernel& k = enter_sleeping("open_node");
  node->mode_ = mode;
  return k.open_bdev(device, mode, PLAT_OPEN_SHARED, nullptr, &node->bdev_, false);
}

int Sim::close_node(OpenNode* node) {
  Kernel& k = enter_sleeping("close_node");
  plat_bdev* bdev = std::exchange(node->bdev_, nullptr);
  return k.close_bdev(k.check_bdev(bdev, "close_node"));
}

int Sim::node_ioctl(const OpenNode& node, unsigned cmd, unsigned long arg) {
  Kernel& k = enter_sleeping("node_ioctl");
  BlockDev* dev = k.check_bdev(node.bdev_, "node_ioctl")->dev;
  if (dev->disk == nullptr) return dev->ioctl ? dev->ioctl(node.mode_, cmd, arg) : -ENOTTY;
  InDriver in_driver(k);
  return k.entries.block_ioctl(dev->number, node.mode_, cmd, arg);
}

bool Sim::disk_exists(plat_devt device) const { return kernel_->find_dev(device) != nullptr; }

u64 Sim::disk_sectors(plat_devt device) const {
  const BlockDev* dev = kernel_->find_dev(device);
  return dev == nullptr ? 0 : dev->sectors;
}

bool Sim::disk_read_only(plat_devt device) const {
  const BlockDev* dev = kernel_->find_dev(device);
  return dev != nullptr && dev->disk != nullptr && dev->disk->read_only;
}

void Sim::set_udev(bool on) { kernel_->udev = on; }

// ---- Reclaim

void Sim::set_reclaim(plat_devt device, u64 sector, u32 percent) {
  Kernel& k = *kernel_;
  k.reclaim_device = device;
  k.reclaim_sector = sector;
  k.reclaim_percent = percent;
}

void Sim::clear_reclaim() { kernel_->reclaim_percent = 0; }

// The write that frees the memory is sent by the allocating task itself or by a flusher; either way
// the allocation waits for it.
void Kernel::reclaim(plat_alloc_mode mode) {
  if (mode != PLAT_ALLOC_NORMAL || reclaim_percent == 0 || current->noio > 0) return;
  if (current->serves_writes || current->in_reclaim || find_dev(reclaim_device) == nullptr) return;
  if (io_rng.below(100) >= reclaim_percent) return;
  Request request{.op = Op::Write, .sector = reclaim_sector};
  request.data.assign(4096, 0x3C);
  if (io_rng.one_in(2)) {
    current->in_reclaim = true;
    submit_and_wait(reclaim_device, request, nullptr);
    current->in_reclaim = false;
    return;
  }
  reclaim_in("kswapd", request);
}

// A helper's allocations heed nothing that the task which waits for it has said of its own.
void Kernel::reclaim_in_helper(const char* helper) {
  if (reclaim_percent == 0 || current->in_reclaim || find_dev(reclaim_device) == nullptr) return;
  if (io_rng.below(100) >= reclaim_percent) return;
  Request request{.op = Op::Write, .sector = reclaim_sector};
  request.data.assign(4096, 0x3C);
  reclaim_in(helper, request);
}

void Kernel::reclaim_in(const char* helper, const Request& request) {
  auto state = std::make_shared<Io::State>();
  new_task(
      helper,
      [this, state, request] {
        current->in_reclaim = true;
        submit_and_wait(reclaim_device, request, nullptr);
        state->done = true;
        wake_all(state->waiters);
      },
      0);
  while (!state->done)
    sleep_in(state->waiters, "memory, which a write must free", state.get(), helper);
}

}  // namespace snbf::sim
