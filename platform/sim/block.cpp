// Where requests go: a task's list of pending requests, its plug, nodes and devices; and opening
// devices.
//
// A request sent from inside a submit function waits on the task's list until that function has
// returned; then those for other devices go first, as in a kernel. What is refused never waits there: its
// end comes before its submission returns. A plugged request is sent when the task unplugs or sleeps, and
// by nothing else; what has no queue is never plugged.
#include <algorithm>
#include <cstring>

#include "block_dev.h"
#include "files.h"

namespace snbf::sim {

BlockDev* Kernel::find_dev(plat_devt number) const {
  auto at = block_state->by_number.find(number);
  return at == block_state->by_number.end() ? nullptr : at->second;
}

plat_bdev* Kernel::check_bdev(plat_bdev* bdev, const char* call) const {
  auto& self = const_cast<Kernel&>(*this);
  if (bdev == nullptr) self.fatal("%s() of no device", call);
  if (bdev->magic != kBdevMagic) self.fatal("%s() of a device that was closed", call);
  return bdev;
}

// ---- Submission

void Kernel::submit(plat_bio* bio, BlockDev* target) {
  bio->target = target;
  bio->in_flight = true;
  if (refuse(bio)) return;
  Task* task = current;
  if (task->bio_lists != nullptr) {
    task->bio_lists->fresh.push_back(bio);
    return;
  }
  BioLists lists;
  task->bio_lists = &lists;
  while (bio != nullptr) {
    const BlockDev* from = bio->target;
    dispatch(bio);
    std::deque<plat_bio*> same;
    std::deque<plat_bio*> order;
    for (plat_bio* fresh : lists.fresh) (fresh->target == from ? same : order).push_back(fresh);
    order.insert(order.end(), same.begin(), same.end());
    order.insert(order.end(), lists.rest.begin(), lists.rest.end());
    lists.rest = std::move(order);
    lists.fresh.clear();
    bio = nullptr;
    if (!lists.rest.empty()) {
      bio = lists.rest.front();
      lists.rest.pop_front();
    }
  }
  task->bio_lists = nullptr;
}

std::string Kernel::describe_lists(const Task& task) const {
  const std::size_t count = task.bio_lists->fresh.size() + task.bio_lists->rest.size();
  return count == 0 ? "" : " with " + std::to_string(count) + " requests that wait for its return";
}

void Kernel::dispatch(plat_bio* bio) {
  point();
  if (bio->target->disk != nullptr) {
    node_submit(bio);
    return;
  }
  BlockDev& dev = *bio->target;
  // Not every driver of a device refuses such a request: some read or write elsewhere.
  if (bio->sector * 512 % dev.block_bytes != 0 || bio->bytes % dev.block_bytes != 0) {
    fatal("request of %u bytes at sector %llu of a device of %u-byte blocks", bio->bytes,
          static_cast<unsigned long long>(bio->sector), dev.block_bytes);
  }
  while (dev.draining != 0) sleep_in(dev.drained, "the end of a drain of", &dev, dev.name.c_str());
  ++dev.entered;
  if (current->plug_depth > 0 && !dev.options.bio_based) {
    current->plugged.push_back(bio);
  } else {
    device_start(bio, true);
  }
}

bool Kernel::can_drain(const BlockDev& dev) const {
  return dev.disk == nullptr && !dev.options.bio_based;
}

int Kernel::drain(BlockDev& dev, u32 limit_ms) {
  const u64 deadline = now_us() + u64{1000} * limit_ms;
  ++dev.draining;
  while (dev.entered != 0 && now_us() < deadline) {
    sleep_in(dev.drain_waiters, "the requests in the queue of", &dev, dev.name.c_str(), nullptr,
             static_cast<s64>(deadline - now_us()));
  }
  const bool is_empty = dev.entered == 0;
  if (--dev.draining == 0) wake_all(dev.drained);
  return is_empty ? 0 : -ETIMEDOUT;
}

void Kernel::flush_plug(Task* task, bool sleeps) {
  if (task->plugged.empty()) return;
  std::vector<plat_bio*> bios;
  bios.swap(task->plugged);
  for (plat_bio* bio : bios) device_start(bio, !sleeps);
}

namespace {

// The first 4 MiB of a caller's request, which keeps the rest.
plat_bio* split_off(Kernel& k, plat_bio* whole) {
  plat_bio* piece = k.new_bio(plat_bio::Kind::Caller);
  piece->op = whole->op;
  piece->fua = whole->fua;
  piece->sector = whole->sector;
  piece->sent_to = whole->sent_to;
  piece->bytes = piece->left = kSplitBytes;
  u32 moved = 0;
  std::size_t used = 0;
  while (used < whole->pieces.size() && moved < kSplitBytes) moved += whole->pieces[used++].bytes;
  if (moved > kSplitBytes) {
    plat_bio::Piece& last = whole->pieces[used - 1];
    const u32 over = moved - kSplitBytes;
    piece->pieces.assign(whole->pieces.begin(),
                         whole->pieces.begin() + static_cast<std::ptrdiff_t>(used));
    piece->pieces.back().bytes -= over;
    last.offset += last.bytes - over;
    last.bytes = over;
    --used;
  } else {
    piece->pieces.assign(whole->pieces.begin(),
                         whole->pieces.begin() + static_cast<std::ptrdiff_t>(used));
  }
  whole->pieces.erase(whole->pieces.begin(),
                      whole->pieces.begin() + static_cast<std::ptrdiff_t>(used));
  whole->sector += kSplitBytes / kSectorBytes;
  whole->bytes -= kSplitBytes;
  whole->left = whole->bytes;
  return piece;
}

struct Chain {
  int left;
  int error;
  std::function<void(plat_bio*, int)> on_end;
  std::vector<plat_bio::Piece> pieces;  // all of the request's memory, for its end
};

}  // namespace

// As the platform does before the driver sees it: nothing above 4 MiB. The remainder goes back
// through the list.
void Kernel::node_submit(plat_bio* bio) {
  plat_disk* disk = bio->target->disk;
  if (in_interrupt())
    fatal("a request is sent to the node '%s' in an interrupt", disk->dev.name.c_str());
  if (disk->dead || disk->freed) {
    end_bio(bio, -EIO);
    return;
  }
  if (disk->read_only && bio->op != Op::Read && bio->bytes > 0) {
    end_bio(bio, -EIO);
    return;
  }
  const u64 sectors = bio->bytes / kSectorBytes;
  if (bio->sector > disk->dev.sectors || sectors > disk->dev.sectors - bio->sector) {
    end_bio(bio, -EIO);
    return;
  }
  if (bio->kind != plat_bio::Kind::Caller) {
    // The driver's own request to a node (a stacked node): a caller's request stands for it there.
    plat_bio* outer = new_bio(plat_bio::Kind::Caller);
    outer->op = bio->op;
    outer->fua = bio->fua;
    outer->preflush = bio->preflush;
    outer->sector = bio->sector;
    outer->bytes = outer->left = bio->bytes;
    outer->pieces = bio->pieces;
    outer->borrows_pages = true;
    outer->target = bio->target;
    outer->in_flight = true;
    outer->on_end = [this, bio](plat_bio* done, int error) {
      done->pieces.clear();
      end_bio(bio, error);
    };
    bio = outer;
  }
  if (bio->bytes > kSplitBytes && !bio->split) {
    auto chain = std::make_shared<Chain>();
    chain->on_end = std::move(bio->on_end);
    chain->pieces = bio->pieces;
    chain->error = 0;
    chain->left = static_cast<int>((bio->bytes + u64{kSplitBytes} - 1) / kSplitBytes);
    auto ended = [chain](plat_bio* done, int error) {
      done->pieces.clear();
      if (error != 0) chain->error = error;
      if (--chain->left > 0) return;
      done->pieces = chain->pieces;
      if (chain->on_end) chain->on_end(done, chain->error);
    };
    bio->on_end = ended;
    bio->split = true;
  }
  if (bio->bytes > kSplitBytes) {
    plat_bio* piece = split_off(*this, bio);
    piece->on_end = bio->on_end;
    piece->split = true;
    // The piece is flushed before, the remainder need not be again.
    piece->preflush = bio->preflush;
    bio->preflush = false;
    piece->target = bio->target;
    current->bio_lists->fresh.push_back(bio);
    bio = piece;
  }
  bio->in_flight = false;
  bio->sent_to = disk->dev.number;
  bio->node = disk;
  ++disk->outstanding;
  ++disk->inside;
  if (entries.make_request == nullptr) fatal("a request reaches a node, but no driver is in use");
  int answer;
  {
    InDriver in_driver(*this);
    answer = entries.make_request(disk, bio);
  }
  if (answer != 0) fatal("make_request answers %d", answer);
  if (--disk->inside == 0) wake_all(disk->drain);
}

// ---- Opening

namespace {

plat_bdev* new_opening(Kernel& k, BlockDev* dev, int mode, plat_open_kind kind, void* holder,
                       bool by_driver) {
  k.block_state->bdevs.push_back(
      std::make_unique<plat_bdev>(plat_bdev{kBdevMagic, dev, mode, kind, holder, by_driver}));
  plat_bdev* bdev = k.block_state->bdevs.back().get();
  dev->opens.push_back(bdev);
  return bdev;
}

int open_disk(Kernel& k, plat_disk* disk) {
  k.lock(disk->open_mutex);
  int error = disk->dead ? -ENXIO : 0;
  if (error == 0) {
    if (k.entries.block_open == nullptr) k.fatal("a node is opened, but no driver is in use");
    InDriver in_driver(k);
    error = k.entries.block_open(&disk->own, disk->dev.number);
  }
  if (error == 0) ++disk->dev.openers;
  k.unlock(disk->open_mutex);
  return error;
}

}  // namespace

int Kernel::open_bdev(plat_devt number, int mode, plat_open_kind kind, void* holder,
                      plat_bdev** bdev, bool by_driver) {
  BlockDev* dev = find_dev(number);
  if (dev == nullptr) return -ENXIO;
  const bool exclusive = kind == PLAT_OPEN_EXCLUSIVE;
  if (exclusive && dev->holders > 0 && dev->holder != holder) return -EBUSY;
  if (exclusive) {
    dev->holder = holder;
    ++dev->holders;
  }
  int error = 0;
  if (dev->disk != nullptr) {
    error = open_disk(*this, dev->disk);
  } else {
    ++dev->openers;
  }
  if (error != 0) {
    if (exclusive) --dev->holders;
    return error;
  }
  if (by_driver) ++dev->driver_openers;
  *bdev = new_opening(*this, dev, mode, kind, holder, by_driver);
  return 0;
}

int Kernel::close_bdev(plat_bdev* bdev) {
  BlockDev* dev = bdev->dev;
  bdev->magic = 0;
  dev->opens.erase(std::find(dev->opens.begin(), dev->opens.end(), bdev));
  if (bdev->kind == PLAT_OPEN_EXCLUSIVE && --dev->holders == 0) dev->holder = nullptr;
  if (bdev->by_driver) --dev->driver_openers;
  if (dev->disk == nullptr) {
    --dev->openers;
    return 0;
  }
  plat_disk* disk = dev->disk;
  lock(disk->open_mutex);
  --dev->openers;
  {
    InDriver in_driver(*this);
    entries.block_release(dev->number);
  }
  unlock(disk->open_mutex);
  return 0;
}

void Kernel::block_leftovers(std::string& text) const {
  std::vector<const plat_bio*> bios(block_state->bios.begin(), block_state->bios.end());
  std::sort(bios.begin(), bios.end(), [](auto* a, auto* b) { return a->id < b->id; });
  for (const plat_bio* bio : bios) {
    if (bio->kind != plat_bio::Kind::Caller) {
      text += "  request #" + std::to_string(bio->id) + " of the driver's own\n";
    } else if (bio->node != nullptr) {
      text += "  request #" + std::to_string(bio->id) + " of a caller, not completed\n";
    }
  }
  for (const auto& [number, dev] : block_state->by_number) {
    if (dev->driver_openers > 0) text += "  an opening of '" + dev->name + "' by the driver\n";
  }
  for (const auto& disk : block_state->disks) {
    if (!disk->freed) text += "  the disk '" + disk->dev.name + "'\n";
  }
  for (const auto& [major, name] : block_state->majors) {
    text += "  block major " + std::to_string(major) + "\n";
  }
}

}  // namespace snbf::sim

using namespace snbf::sim;

extern "C" {

int snbf_plat_bdev_open(plat_devt device, int mode, plat_open_kind kind, void* holder,
                        plat_bdev** bdev) {
  Kernel& k = enter_sleeping("bdev_open");
  if (kind == PLAT_OPEN_EXCLUSIVE && holder == nullptr)
    k.fatal("bdev_open(), exclusive, without a holder");
  if (int error = k.fault(Fault::BdevOpen, -ENXIO); error != 0) return error;
  return k.open_bdev(device, mode, kind, holder, bdev, true);
}

int snbf_plat_bdev_close(plat_bdev* bdev, plat_open_kind kind, int mode, void* holder) {
  Kernel& k = enter_sleeping("bdev_close");
  k.check_bdev(bdev, "bdev_close");
  if (bdev->dev->disk != nullptr && bdev == &bdev->dev->disk->own) {
    k.fatal("bdev_close() of a node's own device, which the driver did not open");
  }
  if (bdev->kind != kind || bdev->mode != mode || bdev->holder != holder) {
    k.fatal("bdev_close() of '%s' in another way than it was opened", bdev->dev->name.c_str());
  }
  for (const BlockDev* dev = bdev->dev; const plat_bio* bio : dev->flying) {
    if (bio->kind != plat_bio::Kind::Caller && dev->driver_openers == 1) {
      k.fatal("bdev_close() of '%s' with requests of the driver's own in flight",
              dev->name.c_str());
    }
  }
  return k.close_bdev(bdev);
}

int snbf_plat_bdev_is_mounted(plat_bdev* bdev) {
  return enter_sleeping("bdev_is_mounted").check_bdev(bdev, "bdev_is_mounted")->dev->fs != nullptr;
}

int snbf_plat_bdev_openers(plat_bdev* bdev) {
  return enter("bdev_openers").check_bdev(bdev, "bdev_openers")->dev->openers;
}

plat_u64 snbf_plat_bdev_bytes(plat_bdev* bdev) {
  return enter("bdev_bytes").check_bdev(bdev, "bdev_bytes")->dev->sectors * kSectorBytes;
}

plat_u32 snbf_plat_bdev_block_bytes(plat_bdev* bdev) {
  return enter("bdev_block_bytes").check_bdev(bdev, "bdev_block_bytes")->dev->block_bytes;
}

plat_devt snbf_plat_bdev_device(plat_bdev* bdev) {
  return enter("bdev_device").check_bdev(bdev, "bdev_device")->dev->number;
}

int snbf_plat_bdev_is_zoned(plat_bdev* bdev) {
  return enter("bdev_is_zoned").check_bdev(bdev, "bdev_is_zoned")->dev->zoned ? 1 : 0;
}

int snbf_plat_bdev_can_drain(plat_bdev* bdev) {
  Kernel& k = enter("bdev_can_drain");
  return k.can_drain(*k.check_bdev(bdev, "bdev_can_drain")->dev) ? 1 : 0;
}

int snbf_plat_bdev_drain(plat_bdev* bdev, plat_u32 limit_ms) {
  Kernel& k = enter_sleeping("bdev_drain");
  BlockDev& dev = *k.check_bdev(bdev, "bdev_drain")->dev;
  if (!k.can_drain(dev)) k.fatal("bdev_drain() of '%s', which cannot be", dev.name.c_str());
  return k.drain(dev, limit_ms);
}

int snbf_plat_bdev_ioctl(plat_bdev* bdev, int mode, unsigned cmd, unsigned long arg) {
  Kernel& k = enter_sleeping("bdev_ioctl");
  BlockDev* dev = k.check_bdev(bdev, "bdev_ioctl")->dev;
  return dev->ioctl ? dev->ioctl(mode, cmd, arg) : 0;
}

int snbf_plat_bdev_freeze(plat_bdev* bdev) {
  Kernel& k = enter_sleeping("bdev_freeze");
  k.check_bdev(bdev, "bdev_freeze");
  if (int error = k.fault(Fault::BdevFreeze, -EIO); error != 0) return error;
  return k.freeze_fs(bdev->dev);
}

int snbf_plat_bdev_thaw(plat_bdev* bdev) {
  Kernel& k = enter_sleeping("bdev_thaw");
  k.check_bdev(bdev, "bdev_thaw");
  return k.thaw_fs(bdev->dev);
}
}
