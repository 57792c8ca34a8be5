// SPDX-License-Identifier: GPL-2.0-only
// Where a path really lies: down through mounts, partitions, loop devices, device-mapper and md
// stacks and this driver's own nodes.
#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "handle.h"

namespace {

namespace fs = std::filesystem;
using snbf::lib::read_line;

// The devices that `path` or anything below it stands on.
class Stack {
 public:
  // With `stores`, what a write to a filter node on the way waits for belongs to what it stands on:
  // the node's bitmap files, whose dirty flag is raised first, and the COW files of its snaps.
  explicit Stack(libsnbf& handle, bool stores = false) : handle_(handle), stores_(stores) {
    const std::string major = read_line(handle.proc_root + "/snbf/blk_major");
    if (!major.empty()) node_major_ = std::atoi(major.c_str());
  }

  int add_path(const fs::path& path) {
    struct stat about;
    fs::path at = fs::absolute(path);
    while (::stat(at.c_str(), &about) < 0) {
      if (errno != ENOENT || at == at.root_path()) return -errno;
      at = at.parent_path();
    }
    if (S_ISBLK(about.st_mode)) {
      add_device(about.st_rdev);
    } else if (major(about.st_dev) != 0) {
      add_device(about.st_dev);
    } else {
      add_anonymous(about.st_dev);
    }
    return 0;
  }

  bool has(dev_t device) const { return seen_.contains(device); }
  // The files of a node on the way are not where they were: what they lie on cannot be told.
  bool lost_sight() const { return lost_sight_; }

 private:
  void add_device(dev_t device) {
    if (!seen_.insert(device).second) return;
    if (node_major_ >= 0 && major(device) == static_cast<unsigned>(node_major_)) {
      const std::string node = handle_.proc_root + "/snbf/snbf" + std::to_string(minor(device));
      const std::string hdd_major = read_line(node + "/hdd_major");
      const std::string hdd_minor = read_line(node + "/hdd_minor");
      if (!hdd_major.empty() && !hdd_minor.empty()) {
        add_device(makedev(std::atoi(hdd_major.c_str()), std::atoi(hdd_minor.c_str())));
      }
      if (stores_) add_stores(minor(device));
    }
    const fs::path here = handle_.sys_root + "/dev/block/" + std::to_string(major(device)) + ":" +
                          std::to_string(minor(device));
    std::error_code ignored;
    if (fs::exists(here / "partition", ignored)) {
      add_by_dev_file(fs::canonical(here, ignored).parent_path());
    }
    for (const auto& slave : fs::directory_iterator(here / "slaves", ignored)) {
      add_by_dev_file(slave.path());
    }
    const std::string backing = read_line(here / "loop" / "backing_file");
    if (!backing.empty()) add_path(backing);
  }

  void add_stores(uint32_t node_minor) {
    snbf_info filter;
    libsnbf_state state;
    if (libsnbf_get_info(&handle_, node_minor, &filter) != 0) return;
    if (filter.dev_type == SNBF_DEV_FILTER) {
      lost_sight_ = lost_sight_ || snbf::lib::read_own_state(filter, &state) != 0;
      add_path(snbf::lib::bmp_dir_of(filter));
    }
    for (uint32_t i = 0; filter.dev_type == SNBF_DEV_FILTER && i < filter.snap_cnt; ++i) {
      snbf_info snap;
      if (libsnbf_get_info(&handle_, filter.snap_minors[i], &snap) != 0) continue;
      add_path(snap.cow_data_fname);
      add_path(snap.cow_bmp_fname);
    }
  }

  void add_by_dev_file(const fs::path& sys_entry) {
    unsigned device_major = 0;
    unsigned device_minor = 0;
    if (std::sscanf(read_line(sys_entry / "dev").c_str(), "%u:%u", &device_major, &device_minor) ==
        2) {
      add_device(makedev(device_major, device_minor));
    }
  }

  // A file system without a device number of its own: ask the mount table what is below it.
  void add_anonymous(dev_t device) {
    if (!seen_.insert(device).second) return;
    const std::string mounts = handle_.proc_root + "/self/mountinfo";
    std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(
        mnt_new_table_from_file(mounts.c_str()), mnt_unref_table);
    if (!table) return;
    std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                                mnt_free_iter);
    libmnt_fs* entry = nullptr;
    while (iter && mnt_table_next_fs(table.get(), iter.get(), &entry) == 0) {
      if (mnt_fs_get_devno(entry) != device) continue;
      const char* type = mnt_fs_get_fstype(entry);
      const char* source = mnt_fs_get_source(entry);
      if (type && std::string(type) == "overlay") {
        add_overlay(entry);
      } else if (source && source[0] == '/') {
        struct stat about;
        if (::stat(source, &about) == 0 && S_ISBLK(about.st_mode)) add_device(about.st_rdev);
      }
      if (type && std::string(type) == "btrfs") add_btrfs_siblings();
    }
  }

  void add_overlay(libmnt_fs* entry) {
    char* value = nullptr;
    size_t size = 0;
    if (mnt_fs_get_option(entry, "upperdir", &value, &size) == 0 && value) {
      add_path(std::string(value, size));
    }
  }

  // A btrfs spans devices: one of them in the stack brings all of them in.
  void add_btrfs_siblings() {
    std::error_code ignored;
    for (const auto& volume : fs::directory_iterator(handle_.sys_root + "/fs/btrfs", ignored)) {
      std::set<dev_t> members;
      bool ours = false;
      for (const auto& member : fs::directory_iterator(volume.path() / "devices", ignored)) {
        unsigned device_major = 0;
        unsigned device_minor = 0;
        if (std::sscanf(read_line(member.path() / "dev").c_str(), "%u:%u", &device_major,
                        &device_minor) != 2) {
          continue;
        }
        members.insert(makedev(device_major, device_minor));
        ours = ours || seen_.contains(makedev(device_major, device_minor));
      }
      if (!ours) continue;
      for (dev_t member : members) add_device(member);
    }
  }

  libsnbf& handle_;
  bool stores_;
  bool lost_sight_ = false;
  int node_major_ = -1;
  std::set<dev_t> seen_;
};

int read_number(const std::string& path, uint32_t* out) {
  const std::string text = read_line(path);
  if (text.empty()) return -ENODEV;
  *out = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  return 0;
}

bool is_name_character(char c, bool first) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || (c == '.' && !first);
}

}  // namespace

int snbf::lib::check_store(libsnbf* handle, const char* path, uint64_t device) {
  Stack stack(*handle, true);
  if (int rc = stack.add_path(path); rc != 0) return rc;
  if (stack.has(device)) return -ELOOP;
  return stack.lost_sight() ? -ENOLINK : 0;
}

extern "C" {

int libsnbf_name_is_safe(const char* name) {
  const size_t length = std::strlen(name);
  if (length == 0 || length >= SNBF_NAME_BYTES || std::strcmp(name, "control") == 0) return 0;
  for (size_t i = 0; i < length; ++i) {
    if (!is_name_character(name[i], i == 0)) return 0;
  }
  return 1;
}

int libsnbf_path_is_on(libsnbf* handle, const char* path, uint32_t major, uint32_t minor,
                       int* answer) {
  return snbf::lib::at_border([&] {
    Stack stack(*handle);
    if (int rc = stack.add_path(path); rc != 0) return rc;
    *answer = stack.has(makedev(major, minor));
    return 0;
  });
}

int libsnbf_cow_dir_check(libsnbf* handle, const char* dir, uint32_t filter_minor) {
  return snbf::lib::at_border([&] {
    struct stat about;
    if (::stat(dir, &about) < 0) return -errno;
    if (!S_ISDIR(about.st_mode)) return -ENOTDIR;
    if (major(about.st_dev) == 0) return -EXDEV;
    uint32_t hdd[2];
    const std::string node = handle->proc_root + "/snbf/snbf" + std::to_string(filter_minor);
    if (int rc = read_number(node + "/hdd_major", &hdd[0]); rc != 0) return rc;
    if (int rc = read_number(node + "/hdd_minor", &hdd[1]); rc != 0) return rc;
    return snbf::lib::check_store(handle, dir, makedev(hdd[0], hdd[1]));
  });
}

int libsnbf_minor_max(libsnbf* handle, uint32_t* out) {
  return snbf::lib::at_border([&] {
    return read_number(handle->sys_root + "/module/snbf/parameters/snbf_max_blk_minor", out);
  });
}

int libsnbf_blk_major(libsnbf* handle, uint32_t* out) {
  return snbf::lib::at_border(
      [&] { return read_number(handle->proc_root + "/snbf/blk_major", out); });
}

}  // extern "C"
