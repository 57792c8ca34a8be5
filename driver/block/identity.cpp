// SPDX-License-Identifier: GPL-2.0-only
#include "block/identity.h"

#include "base/errno.h"
#include "base/string.h"
#include "core/log.h"
#include "core/params.h"
#include "platform/log.h"
#include "util/path.h"

namespace snbf {

void make_uuid(char (&uuid)[SNBF_UUID_BYTES]) {
  u8 b[16];
  snbf_plat_random_bytes(b, sizeof(b));
  snbf_plat_snprintf(uuid, sizeof(uuid),
                     "{%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x}", b[0],
                     b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
                     b[13], b[14], b[15]);
}

Result<u32> choose_minor(const char* origin, int wish) {
  using Minor = Result<u32>;
  const int max = snbf_max_blk_minor < kMinorLimit ? snbf_max_blk_minor : kMinorLimit;
  if (wish > max) {
    snbf_log(kLogError, "%s(): Minor number %d is too big: max=%d", origin, wish, max);
    return Minor::failure(-EINVAL);
  }
  if (wish >= 0) {
    if (find_node(static_cast<u32>(wish)) == nullptr) return static_cast<u32>(wish);
    snbf_log(kLogError, "%s(): Device minor number %d is already taken", origin, wish);
    return Minor::failure(-EINVAL);
  }
  for (int minor = 0; minor <= max; ++minor) {
    if (find_node(static_cast<u32>(minor)) == nullptr) return static_cast<u32>(minor);
  }
  snbf_log(kLogError, "%s(): All %d of SNBF minor nodes have already been used up.", origin,
           max + 1);
  return Minor::failure(-ENOSPC);
}

plat_disk* allocate_disk(const char* origin, const Node& node, const FilterNode& filter) {
  plat_disk_params params = {};
  params.name = node.disk_name;
  params.major = snbf_blk_major;
  params.minor = static_cast<int>(node.minor);
  params.sectors = filter.dev_size / kSectorBytes;
  params.limits_from = filter.hdd_bdev;
  // A snap's read is served piece by piece of its memory, and the partition reads whole blocks alone.
  params.whole_blocks = node.dev_type == kSnapNode;
  plat_disk* disk = snbf_plat_disk_alloc(&params);
  if (disk == nullptr) snbf_log(kLogError, "%s(): Failed to allocate new generic disk.", origin);
  return disk;
}

void make_device_file(Node& node, const char* file_name) {
  char path[kDevNameBytes];
  snbf_plat_snprintf(path, sizeof(path), "/dev/snbf/%s", file_name);
  snbf_unlink(path);
  if (snbf_mknod(path, 1, snbf_blk_major, static_cast<int>(node.minor)) != 0) return;
  text_copy(node.dev_name, sizeof(node.dev_name), path);
}

}  // namespace snbf
