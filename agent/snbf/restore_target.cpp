// SPDX-License-Identifier: GPL-2.0-only
#include "restore_target.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "sizes.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse_used(const std::string& path, dev_t device) {
  const std::string who = joined(holders_of(device));
  if (!mounts_of(device).empty()) {
    throw Failure(kUnsafe, fmt::format("{} is in use: {}", path, who),
                  "unmount it first; a restore never writes below a mounted file system");
  }
  throw Failure(kBusy,
                fmt::format("{} is in use: {}", path,
                            who.empty() ? "held from somewhere that cannot be seen" : who),
                "close what holds it first", -EBUSY);
}

void claim_device(Target* target, dev_t device) {
  target->is_device = true;
  target->claim = UniqueFd(::open(target->path.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
  if (!target->claim && errno == EBUSY) refuse_used(target->path, device);
  if (!target->claim) throw failure_of(-errno, "opening " + target->path);
  if (!mounts_of(device).empty()) refuse_used(target->path, device);
  if (::ioctl(target->claim.get(), BLKGETSIZE64, &target->size_bytes) < 0) {
    throw failure_of(-errno, "asking the size of " + target->path);
  }
  int read_only = 0;
  if (::ioctl(target->claim.get(), BLKROGET, &read_only) == 0 && read_only) {
    throw Failure(kFailed, target->path + " is read-only",
                  "choose another target, or make it writable: blockdev --setrw");
  }
  target->contents = contents_of(target->path);
}

void check_room(const Target& target, uint64_t data_bytes) {
  const std::string folder = folder_of(target.path);
  struct statvfs about;
  if (::statvfs(folder.c_str(), &about) < 0) throw failure_of(-errno, folder);
  const uint64_t free_bytes = uint64_t{about.f_bavail} * about.f_frsize;
  if (free_bytes >= data_bytes) return;
  throw Failure(kFailed,
                fmt::format("{} has room for {}, and the point holds {}", folder,
                            show_size(free_bytes), show_size(data_bytes)),
                "free some space there, or choose another target");
}

}  // namespace

std::string Target::describe() const {
  if (!exists) return "the new file " + path;
  if (!is_device) return "the file " + path;
  const std::string where = fmt::format("{} ({})", path, show_size(size_bytes));
  return contents.empty() ? where : fmt::format("{}, on {}", contents, where);
}

Target claim_target(const std::string& path, const std::string& destination) {
  Target target;
  // As a path, whatever it looks like: the image tools know words that mean something else.
  std::error_code failed;
  target.path = fs::weakly_canonical(fs::absolute(path), failed);
  if (failed) throw failure_of(-failed.value(), "looking at " + path);
  if (target.path.rfind(fs::weakly_canonical(destination).string() + "/", 0) == 0) {
    throw Failure(kUnsafe, path + " lies in the backup itself", "choose a target elsewhere");
  }
  struct stat about;
  if (::stat(target.path.c_str(), &about) < 0) {
    if (errno != ENOENT) throw failure_of(-errno, "looking at " + path);
    if (target.path.rfind("/dev/", 0) == 0 || !fs::is_directory(folder_of(target.path))) {
      throw failure_of(-ENOENT, path);
    }
    return target;
  }
  target.exists = true;
  if (S_ISBLK(about.st_mode)) {
    claim_device(&target, about.st_rdev);
  } else if (S_ISREG(about.st_mode)) {
    target.contents = about.st_size == 0 ? "" : "a file";
  } else {
    throw Failure(kMisused, path + " is neither a block device nor a file",
                  "give a partition, or a file to be made");
  }
  return target;
}

void check_target(const Target& target, uint64_t size_bytes, uint64_t data_bytes, bool overwrite) {
  if (target.is_device && target.size_bytes < size_bytes) {
    throw Failure(kUnsafe,
                  fmt::format("{} is too small: {} instead of {} bytes", target.path,
                              target.size_bytes, size_bytes),
                  "choose a device of at least that size");
  }
  if (!target.is_device) check_room(target, data_bytes);
  if (target.contents.empty() || overwrite) return;
  throw Failure(kUnsafe, fmt::format("{} is not empty: {}", target.path, target.contents),
                "say --yes to overwrite it");
}

TargetFile::TargetFile(const Target& target) : target_(target), path_(target.path) {
  if (target.is_device) return;
  path_ += ".restoring";
  lock_ = lock_file(path_, "restoring into " + target.path);
}

TargetFile::~TargetFile() {
  if (!target_.is_device && !kept_) ::unlink(path_.c_str());
}

void TargetFile::keep() {
  kept_ = true;
  if (target_.is_device) return;
  if (::rename(path_.c_str(), target_.path.c_str()) < 0) {
    kept_ = false;
    throw failure_of(-errno, "making " + target_.path);
  }
  path_ = target_.path;
  sync_directory(folder_of(target_.path));
}

}  // namespace snbf
