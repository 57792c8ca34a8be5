// Files as a user process has them.
#include <algorithm>
#include <cstring>

#include "files.h"

namespace snbf::sim {

const std::string& FileSystem::name() const { return state_->name; }
bool FileSystem::mounted() const { return state_->mounted; }
void FileSystem::set_free_blocks(u64 blocks) { state_->free_limit = blocks; }
void FileSystem::set_takes_direct(bool takes) { state_->takes_direct = takes; }
u64 FileSystem::free_blocks() const { return fs_free_blocks(*state_); }
bool FileSystem::frozen() const { return state_->frozen > 0; }
bool FileSystem::dirty() const { return fs_dirty(*state_); }
u64 FileSystem::lost_pages() const { return state_->lost_pages; }
bool FileSystem::aborted() const { return state_->aborted; }
u64 FileSystem::refusals() const { return state_->refusals; }

void FileSystem::abort_journal() {
  if (state_->aborted) return;
  state_->aborted = true;
  state_->refuses_open = kernel().io_rng.one_in(2);
}

int FileSystem::freeze_by_hand() { return freeze(enter_sleeping("freeze_by_hand"), *state_, true); }
int FileSystem::thaw_by_hand() { return thaw(enter_sleeping("thaw_by_hand"), *state_, true); }

std::vector<std::pair<u64, u64>> FileSystem::map(const std::string& path) const {
  std::vector<std::pair<u64, u64>> ranges;
  Place place;
  if (resolve(kernel(), path, true, &place) != 0 || place.inode == 0 || place.fs != state_)
    return ranges;
  for (const auto& [page, block] : state_->meta.inodes[place.inode].blocks)
    ranges.push_back({block * 8, 8});
  return ranges;
}

int Sim::mount(FileSystem* handle, plat_devt device, const std::string& path) {
  handle->state_->device = device;
  return mount(handle, path);
}

int Sim::mount(FileSystem* handle, const std::string& path) {
  Kernel& k = *kernel_;
  FsState& fs = *handle->state_;
  if (fs.mounted) return -EBUSY;
  if (fs.device != 0) {
    const int error = k.open_bdev(fs.device, PLAT_MODE_READ | PLAT_MODE_WRITE, PLAT_OPEN_EXCLUSIVE,
                                  &fs, &fs.bdev, false);
    if (error != 0) return error;
    fs.bdev->dev->fs = &fs;
    start_fs_tasks(k, fs);
  }
  Place place;
  if (resolve(k, path, true, &place) == 0 && place.inode == 0) {
    FsState& below = *place.fs;
    const u64 number = below.meta.next_inode++;
    below.meta.names[place.rel] = number;
    below.meta.inodes[number].mode = kTypeDir | 0755;
  }
  mount_fs(k, fs, place.absolute);
  return 0;
}

int Sim::unmount(FileSystem* handle) {
  Kernel& k = enter_sleeping("unmount");
  FsState& fs = *handle->state_;
  if (!fs.mounted) return -EINVAL;
  const auto is_busy = [&fs] {
    return std::any_of(fs.inodes.begin(), fs.inodes.end(),
                       [](const auto& each) { return each.second->opens > 0; });
  };
  if (is_busy()) return -EBUSY;
  const int error = fs_sync(k, fs);
  if (is_busy()) return -EBUSY;  // somebody came meanwhile
  auto& mounts = k.files->mounts;
  mounts.erase(std::find(mounts.begin(), mounts.end(), &fs));
  fs.mounted = false;
  if (fs.device == 0) return error;
  stop_fs_tasks(k, fs);
  fs.inodes.clear();
  if (fs.aborted) fs_recover(fs);
  fs.bdev->dev->fs = nullptr;
  k.close_bdev(fs.bdev);
  return error;
}

namespace {

int make(Kernel& k, const std::string& path, InodeMeta meta) {
  Place place;
  if (const int error = resolve(k, path, false, &place); error != 0) return error;
  Place up;
  if (const int error = resolve(k, parent_of(place.absolute), true, &up); error != 0) return error;
  if (up.inode == 0) return -ENOENT;
  Inode* directory = up.fs->inode(up.inode);
  k.lock(directory->lock);
  u64 number = 0;
  const int error = fs_create(k, *place.fs, place.rel, std::move(meta), &number);
  k.unlock(directory->lock);
  return error;
}

}  // namespace

int Sim::make_dir(const std::string& path) {
  return make(enter_sleeping("make_dir"), path, {.mode = kTypeDir | 0755});
}

int Sim::make_symlink(const std::string& target, const std::string& path) {
  return make(enter_sleeping("make_symlink"), path, {.mode = kTypeLink | 0777, .target = target});
}

int Sim::make_node_file(const std::string& path, int mode, plat_devt device) {
  return make(enter_sleeping("make_node_file"), path,
              {.mode = static_cast<u32>(mode), .device = device});
}

namespace {

int write_with(const std::string& path, int flags, u64 position, std::span<const u8> data) {
  Kernel& k = enter_sleeping("write_file");
  Inode* inode = nullptr;
  if (const int error = open_inode(k, path, flags, 0600, &inode); error != 0) return error;
  int error = 0;
  for (std::size_t done = 0; done < data.size() && error == 0;) {
    const s64 moved = fs_write(k, *inode, position + done, data.data() + done, data.size() - done,
                               (flags & PLAT_O_SYNC) != 0);
    if (moved <= 0) error = static_cast<int>(moved < 0 ? moved : -EIO);
    if (moved > 0) done += static_cast<std::size_t>(moved);
  }
  fs_put_inode(k, *inode);
  return error;
}

}  // namespace

int Sim::write_file(const std::string& path, std::span<const u8> data, bool sync) {
  return write_with(path, PLAT_O_RDWR | PLAT_O_CREAT | PLAT_O_TRUNC | (sync ? PLAT_O_SYNC : 0), 0,
                    data);
}

int Sim::write_at(const std::string& path, u64 position, std::span<const u8> data, bool sync) {
  return write_with(path, PLAT_O_RDWR | PLAT_O_CREAT | (sync ? PLAT_O_SYNC : 0), position, data);
}

int Sim::sync_file(const std::string& path) {
  Kernel& k = enter_sleeping("sync_file");
  Inode* inode = nullptr;
  if (const int error = open_inode(k, path, PLAT_O_RDWR, 0, &inode); error != 0) return error;
  const int error = fs_sync_inode(k, *inode);
  fs_put_inode(k, *inode);
  return error;
}

int Sim::sync_all() {
  Kernel& k = enter_sleeping("sync_all");
  int error = 0;
  const std::vector<FsState*> mounts = k.files->mounts;
  for (FsState* fs : mounts) {
    if (const int one = fs_sync(k, *fs); one != 0) error = one;
  }
  return error;
}

int Sim::read_file(const std::string& path, Bytes* data) {
  Kernel& k = enter_sleeping("read_file");
  Inode* inode = nullptr;
  if (const int error = open_inode(k, path, PLAT_O_RDONLY, 0, &inode); error != 0) return error;
  data->resize(inode->fs->meta.inodes[inode->number].size);
  const s64 moved = fs_read(k, *inode, 0, data->data(), data->size());
  fs_put_inode(k, *inode);
  if (moved < 0) return static_cast<int>(moved);
  data->resize(static_cast<std::size_t>(moved));
  return 0;
}

bool Sim::peek_file(const std::string& path, Bytes* data) const {
  Kernel& k = *kernel_;
  Place place;
  if (resolve(k, path, true, &place) != 0 || place.inode == 0) return false;
  FsState& fs = *place.fs;
  const InodeMeta& meta = fs.meta.inodes[place.inode];
  const Inode& inode = *fs.inode(place.inode);
  const BlockDev* dev = fs.device != 0 ? k.find_dev(fs.device) : nullptr;
  data->assign((meta.size + kBlockBytes - 1) / kBlockBytes * kBlockBytes, 0);
  for (u64 index = 0; index * kBlockBytes < data->size(); ++index) {
    u8* to = data->data() + index * kBlockBytes;
    auto page = inode.pages.find(index);
    auto block = meta.blocks.find(index);
    if (page != inode.pages.end()) {
      memcpy(to, page->second.data->data(), kBlockBytes);
    } else if (block != meta.blocks.end() && dev != nullptr && dev->storage != nullptr) {
      dev->storage->read(block->second * 8, to, kBlockBytes);
    }
  }
  data->resize(meta.size);
  return true;
}

bool Sim::exists(const std::string& path) const {
  Place place;
  return resolve(*kernel_, path, false, &place) == 0 && place.inode != 0;
}

int Sim::unlink(const std::string& path) {
  Kernel& k = enter_sleeping("unlink");
  Place place;
  if (const int error = resolve(k, path, false, &place); error != 0) return error;
  return fs_unlink(k, *place.fs, place.rel);
}

std::vector<std::string> Sim::list_dir(const std::string& path) const {
  std::vector<std::string> names;
  Place place;
  if (resolve(*kernel_, path, true, &place) != 0 || place.inode == 0) return names;
  const std::string prefix = place.rel.empty() ? "" : place.rel + "/";
  for (const auto& [name, number] : place.fs->meta.names) {
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string rest = name.substr(prefix.size());
    if (rest.find('/') == std::string::npos) names.push_back(rest);
  }
  return names;
}

}  // namespace snbf::sim
