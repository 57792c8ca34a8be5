// Paths and mounts.
#include <algorithm>

#include "files.h"

namespace snbf::sim {

namespace {

constexpr int kLinksMax = 10;

std::deque<std::string> split(const std::string& path) {
  std::deque<std::string> parts;
  std::size_t at = 0;
  while (at < path.size()) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

// The file system that an absolute path without links lies on, and the name inside of it.
FsState* on_mount(Kernel& k, const std::string& absolute, std::string* rel) {
  FsState* best = nullptr;
  std::size_t best_length = 0;
  for (FsState* fs : k.files->mounts) {
    const std::string& at = fs->mount_path;  // "" is the root's
    const bool below = absolute.compare(0, at.size(), at) == 0 &&
                       (absolute.size() == at.size() || absolute[at.size()] == '/');
    if (!below || (best != nullptr && at.size() < best_length)) continue;
    best = fs;
    best_length = at.size();
  }
  *rel = absolute.size() > best_length ? absolute.substr(best_length + 1) : "";
  return best;
}

u64 find_inode(const FsState& fs, const std::string& rel) {
  auto at = fs.meta.names.find(rel);
  return at == fs.meta.names.end() ? 0 : at->second;
}

}  // namespace

std::string parent_of(const std::string& absolute) {
  const std::size_t slash = absolute.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : absolute.substr(0, slash);
}

int resolve(Kernel& k, const std::string& path, bool follow, Place* place) {
  std::deque<std::string> parts = split(path);
  std::string at;
  int links = 0;
  place->trailing_slash = path.size() > 1 && path.back() == '/';
  place->last = parts.empty() ? "" : parts.back();
  place->last_normal = !parts.empty() && place->last != "." && place->last != "..";
  while (!parts.empty()) {
    const std::string part = parts.front();
    parts.pop_front();
    if (part == ".") continue;
    if (part == "..") {
      at = at.substr(0, at.empty() ? 0 : at.rfind('/'));
      continue;
    }
    const std::string next = at + "/" + part;
    std::string rel;
    FsState* fs = on_mount(k, next, &rel);
    const u64 number = find_inode(*fs, rel);
    if (number == 0) {
      if (!parts.empty()) return -ENOENT;
      at = next;
      break;
    }
    const InodeMeta& meta = fs->meta.inodes[number];
    const u32 type = meta.mode & kTypeMask;
    if (type == kTypeLink && (!parts.empty() || follow || place->trailing_slash)) {
      if (++links > kLinksMax) return -ELOOP;
      std::deque<std::string> target = split(meta.target);
      if (!meta.target.empty() && meta.target[0] == '/') at.clear();
      parts.insert(parts.begin(), target.begin(), target.end());
      continue;
    }
    if (type != kTypeDir && type != kTypeLink && !parts.empty()) return -ENOTDIR;
    at = next;
  }
  place->absolute = at;
  place->fs = on_mount(k, at, &place->rel);
  place->inode = find_inode(*place->fs, place->rel);
  return 0;
}

int open_inode(Kernel& k, const std::string& path, int flags, int mode, Inode** inode) {
  Place place;
  const bool must_make = (flags & PLAT_O_CREAT) != 0 && (flags & PLAT_O_EXCL) != 0;
  if (const int error = resolve(k, path, !must_make, &place); error != 0) return error;
  if (place.inode != 0 && must_make) return -EEXIST;
  if (place.inode == 0) {
    if ((flags & PLAT_O_CREAT) == 0) return -ENOENT;
    if (place.trailing_slash || !place.last_normal) return -EISDIR;
    Place parent;
    const int error = resolve(k, parent_of(place.absolute), true, &parent);
    if (error != 0) return error;
    if (parent.inode == 0) return -ENOENT;
    Inode* directory = parent.fs->inode(parent.inode);
    k.lock(directory->lock);
    int made = fs_create(k, *place.fs, place.rel,
                         {.mode = kTypeFile | static_cast<u32>(mode & 0777)}, &place.inode);
    k.unlock(directory->lock);
    // Somebody else made it meanwhile: as well, unless it must be new.
    if (made == -EEXIST) return open_inode(k, path, flags, mode, inode);
    if (made != 0) return made;
  }
  const u32 type = place.fs->meta.inodes[place.inode].mode & kTypeMask;
  if (type == kTypeDir) return (flags & PLAT_O_ACCMODE) != PLAT_O_RDONLY ? -EISDIR : -EINVAL;
  if (type != kTypeFile) return -ENXIO;
  if ((flags & PLAT_O_ACCMODE) != PLAT_O_RDONLY && place.fs->refuses_open && place.fs->aborted)
    return -EROFS;
  *inode = place.fs->inode(place.inode);
  ++(*inode)->opens;
  if ((flags & PLAT_O_TRUNC) == 0 || place.fs->meta.inodes[place.inode].size == 0) return 0;
  const int error = fs_truncate(k, **inode);
  if (error != 0) fs_put_inode(k, **inode);
  return error;
}

void mount_fs(Kernel& k, FsState& fs, const std::string& path) {
  fs.mount_path = path == "/" ? "" : path;
  fs.mounted = true;
  k.files->mounts.push_back(&fs);
}

// Memory only, as an initramfs: it is gone with the power.
void make_root(Kernel& k) {
  auto root = std::make_unique<FsState>();
  root->number = dev(0, 1);
  root->name = "rootfs";
  root->meta.names[""] = 1;
  root->meta.inodes[1].mode = kTypeDir | 0755;
  for (const char* name : {"dev", "dev/snbf", "tmp", "var", "mnt", "proc", "etc"}) {
    const u64 number = root->meta.next_inode++;
    root->meta.names[name] = number;
    root->meta.inodes[number].mode = kTypeDir | 0755;
  }
  mount_fs(k, *root, "/");
  k.files->all.push_back(std::move(root));
}

}  // namespace snbf::sim
