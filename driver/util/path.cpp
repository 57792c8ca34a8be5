// SPDX-License-Identifier: GPL-2.0-only
#include "util/path.h"

#include "base/assert.h"
#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"

using namespace snbf;

namespace {

constexpr int kDeviceFilePermissions = 0600;

// The two look-ups that making and removing a name begin with, logged for the verb `origin`. 0 and
// the locked parent with the child in it, which the caller unlocks; or a negative error and nothing
// held.
int lock_parent_of(const char* origin, const char* path, plat_parent** parent) {
  if (int rc = snbf_plat_parent_lock(path, parent); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to lookup parent of %s: rc=%d", origin, path, rc);
    return rc;
  }
  if (int rc = snbf_plat_parent_child(*parent); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to lookup %s: rc=%d", origin, path, rc);
    snbf_plat_parent_unlock(*parent);
    return rc;
  }
  return 0;
}

// Cuts the path at its last "/", which goes too.
void cut_last_component(char* path) {
  size_t length = text_length(path);
  while (length > 0 && path[length - 1] != '/') --length;
  path[length > 0 ? length - 1 : 0] = '\0';
}

// Of the path, or of its nearest ancestor that exists; all zeros if there is none.
plat_path_info nearest_that_exists(const char* path, int follow) {
  constexpr const char* kOrigin = "snbf_get_file_devt";
  plat_path_info info = {};
  SNBF_ASSERT(path != nullptr);
  const size_t path_bytes = text_length(path) + 1;
  char* ancestor = static_cast<char*>(snbf_plat_heap_alloc(path_bytes, PLAT_ALLOC_NORMAL));
  if (ancestor == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return info;
  }
  ScopeExit free_ancestor{[&] { snbf_plat_heap_free(ancestor); }};
  mem_copy(ancestor, path, path_bytes);
  // Kept: the cut takes the last "/" along, so the root itself is never asked.
  while (ancestor[0] != '\0') {
    plat_path* found = nullptr;
    if (snbf_get_file_dentry(ancestor, follow, &found) == 0 && found != nullptr) {
      snbf_plat_path_info(found, &info);
      snbf_plat_path_put(found);
      return info;
    }
    cut_last_component(ancestor);
  }
  return info;
}

}  // namespace

int snbf_mknod(const char* path, int block, int major, int minor) {
  constexpr const char* kOrigin = "snbf_mknod";
  snbf_log(3, "%s(): fname=%s, block=%d, dev=(%d, %d)", kOrigin, path, block, major, minor);
  plat_parent* parent = nullptr;
  if (int rc = lock_parent_of(kOrigin, path, &parent); rc != 0) return rc;
  const int type = block != 0 ? PLAT_S_IFBLK : PLAT_S_IFCHR;
  const plat_devt device = make_dev(static_cast<u32>(major), static_cast<u32>(minor));
  const int rc = snbf_plat_parent_mknod(parent, type | kDeviceFilePermissions, device);
  if (rc != 0) snbf_log(kLogError, "%s(): Failed to mknod %s: rc=%d", kOrigin, path, rc);
  snbf_plat_parent_unlock(parent);
  return rc;
}

int snbf_unlink(const char* path) {
  constexpr const char* kOrigin = "snbf_unlink";
  snbf_log(3, "%s(): fname=%s", kOrigin, path);
  plat_parent* parent = nullptr;
  if (int rc = lock_parent_of(kOrigin, path, &parent); rc != 0) return rc;
  const int rc = snbf_plat_parent_unlink(parent);
  if (rc != 0 && rc != -ENOENT) {
    snbf_log(kLogError, "%s(): Failed to unlink %s: rc=%d", kOrigin, path, rc);
  }
  snbf_plat_parent_unlock(parent);
  return rc;
}

int snbf_get_file_dentry(const char* path, int follow, plat_path** found) {
  constexpr const char* kOrigin = "snbf_get_file_dentry";
  SNBF_ASSERT(path != nullptr);
  *found = nullptr;
  if (path[0] != '/') {
    snbf_log(kLogError, "%s(): Can't lookup %s: must be an absolute path.", kOrigin, path);
    return -EINVAL;
  }
  plat_path* walked = nullptr;
  if (int rc = snbf_plat_path_lookup(path, follow, &walked); rc != 0) return rc;
  plat_path_info info = {};
  snbf_plat_path_info(walked, &info);
  if (!info.has_inode) {
    snbf_plat_path_put(walked);
    return 0;
  }
  snbf_log(2, "%s(): %s: dentry=(%p, %s), inode=(%p, %d)", kOrigin, path, info.entry, info.name,
           info.inode, static_cast<int>(info.inode_number));
  *found = walked;
  return 0;
}

plat_devt snbf_get_file_devt(const char* path) { return nearest_that_exists(path, 0).store_device; }

plat_devt snbf::find_file_system(const char* path) {
  return nearest_that_exists(path, 1).file_system;
}

Result<plat_devt> snbf::find_hdd(const char* origin, const char* path) {
  using Device = Result<plat_devt>;
  if (path[0] == '\0') {
    snbf_log(kLogError, "%s(): Empty HDD name passed as input.", origin);
    return Device::failure(-EINVAL);
  }
  plat_path* found = nullptr;
  if (int rc = snbf_get_file_dentry(path, 1, &found); rc != 0) {
    snbf_log(kLogError, "%s(): Unable to lookup %s: rc=%d", origin, path, rc);
    return Device::failure(-ENOENT);  // Kept: whatever the look-up answered.
  }
  plat_path_info info = {};
  if (found != nullptr) {
    snbf_plat_path_info(found, &info);
    snbf_plat_path_put(found);
  }
  if (!info.has_inode) {
    snbf_log(kLogError, "%s(): Unable to derive major/minor numbers for %s", origin, path);
    return Device::failure(-EINVAL);
  }
  if ((info.mode & PLAT_S_IFMT) != PLAT_S_IFBLK) {
    snbf_log(kLogError, "%s(): %s is not a block device.", origin, path);
    return Device::failure(-EINVAL);
  }
  snbf_log(2, "%s(): Successfully derived HDD major=%d, minor=%d", origin,
           static_cast<int>(dev_major(info.device)), static_cast<int>(dev_minor(info.device)));
  return info.device;
}
