// Devices and file systems: adding them, and what outlives a boot.
#include "images.h"

#include <algorithm>
#include <cstring>

namespace snbf::sim {

Device* Sim::add_device(const DeviceOptions& options) {
  Kernel& k = *kernel_;
  BlockState& blocks = *k.block_state;
  auto dev = std::make_unique<BlockDev>();
  dev->options = options;
  dev->name = options.name;
  dev->number = options.number != 0 ? options.number : sim::dev(8, blocks.next_minor++);
  dev->options.number = dev->number;
  dev->sectors = options.bytes / kSectorBytes;
  dev->block_bytes = options.block_bytes;
  dev->zoned = options.zoned;
  dev->storage = std::make_shared<Storage>();
  dev->storage->blank = options.blank;
  if (!blocks.by_number.emplace(dev->number, dev.get()).second) {
    k.fatal("add_device: there is a device %u:%u", dev->number >> 20, dev->number & 0xFFFFF);
  }
  FsState& root = *k.files->mounts.front();
  const u64 number = root.meta.next_inode++;
  root.meta.names["dev/" + options.name] = number;
  root.meta.inodes[number] = {.mode = PLAT_S_IFBLK | 0600, .device = dev->number};
  devices_.push_back(std::unique_ptr<Device>(new Device(dev.get())));
  blocks.devices.push_back(std::move(dev));
  return devices_.back().get();
}

Device* Sim::device(const std::string& name) const {
  for (const auto& device : devices_) {
    if (device->name() == name) return device.get();
  }
  return nullptr;
}

Device* Sim::device(plat_devt number) const {
  for (const auto& device : devices_) {
    if (device->number() == number) return device.get();
  }
  return nullptr;
}

FileSystem* Sim::add_fs(const std::string& name, plat_devt device, u64 blocks) {
  Kernel& k = *kernel_;
  auto fs = std::make_unique<FsState>();
  fs->name = name;
  fs->device = device;
  fs->number = device != 0 ? device : dev(0, static_cast<u32>(k.files->all.size()) + 1);
  BlockDev* dev = device != 0 ? k.find_dev(device) : nullptr;
  if (device != 0 && dev == nullptr)
    k.fatal("add_fs: there is no device %u:%u", device >> 20, device & 0xFFFFF);
  if (dev != nullptr) fs->blocks = dev->sectors * kSectorBytes / kBlockBytes;
  if (blocks != 0) fs->blocks = blocks;
  if (dev != nullptr && fs->blocks <= fs->first_data) k.fatal("add_fs: the device is too small");
  fs->used.assign(fs->blocks, false);
  fs->cursor = fs->first_data;
  fs->meta.names[""] = 1;
  fs->meta.inodes[1].mode = kTypeDir | 0755;
  fs->committed = fs->meta;
  filesystems_.push_back(std::unique_ptr<FileSystem>(new FileSystem(fs.get())));
  k.files->all.push_back(std::move(fs));
  return filesystems_.back().get();
}

FileSystem* Sim::fs(const std::string& name) const {
  for (const auto& fs : filesystems_) {
    if (fs->name() == name) return fs.get();
  }
  return nullptr;
}

// Inodes without a name were open files: they are gone.
Images Sim::take_images(u64 seed) {
  Kernel& k = *kernel_;
  Rng rng{seed * 2 + 17};
  Images images;
  images.impl = std::make_shared<Images::Impl>();
  for (const auto& dev : k.block_state->devices) {
    // A write on its way may have reached the disk, whole or in part.
    for (const plat_bio* bio : dev->flying) {
      if (!k.power_off || bio->op != Op::Write || !rng.one_in(2)) continue;
      const u64 number = dev->next_write++;
      u64 sector = bio->sector;
      for (const plat_bio::Piece& piece : bio->pieces) {
        dev->storage->write(number, sector, piece.page + piece.offset, piece.bytes);
        sector += piece.bytes / kSectorBytes;
      }
    }
    images.impl->devices.push_back(
        {dev->options, k.power_off ? dev->storage->cut(rng) : dev->storage->copy()});
  }
  for (const auto& handle : filesystems_) {
    FsState& fs = *handle->state_;
    if (fs.device == 0) continue;
    Meta meta = fs.committed;
    std::size_t kept = k.power_off ? rng.below(fs.journal.size() + 1) : fs.journal.size();
    // The last commit may have come to disk, though nobody was told so.
    if (fs.aborted) kept = k.power_off && rng.one_in(2) ? fs.in_doubt : 0;
    for (std::size_t i = 0; i < kept; ++i) apply(meta, fs.journal[i]);
    std::set<u64> named;
    for (const auto& [path, number] : meta.names) named.insert(number);
    std::erase_if(meta.inodes, [&](const auto& inode) { return named.count(inode.first) == 0; });
    images.impl->filesystems.push_back({fs.name, fs.device, fs.blocks, std::move(meta)});
  }
  return images;
}

Images Sim::take_images() { return take_images(seed()); }

void restore_images(Sim& sim, const Images::Impl& images) {
  for (const auto& image : images.devices) {
    sim.add_device(image.options);
    for (auto& dev : sim.internals()->block_state->devices) {
      if (dev->number == image.options.number) dev->storage = image.storage->copy();
    }
  }
  for (const auto& image : images.filesystems) {
    // Its device may be a node, which is not there yet: mount names it.
    sim.add_fs(image.name, 0, image.blocks);
    FsState& fs = *sim.internals()->files->all.back();
    fs.device = image.device;
    fs.committed = image.meta;
    fs_recover(fs);
  }
}

}  // namespace snbf::sim
