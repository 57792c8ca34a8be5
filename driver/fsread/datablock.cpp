// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/datablock.h"

#include "base/errno.h"
#include "base/result.h"
#include "base/scope_exit.h"
#include "core/log.h"
#include "core/memory.h"
#include "fsread/reader.h"
#include "fsread/selftest.h"
#include "util/bdev.h"
#include "util/path.h"

namespace snbf {

namespace {

constexpr const char* kGet = "snbf_ioctl_get_datablock_bmp";
constexpr const char* kTest = "snbf_ioctl_test_datablock";

int check_snap(const Node& node) {
  const int minor = static_cast<int>(node.minor);
  if (node.dev_type != kSnapNode) {
    snbf_log(kLogError, "%s(): snbf(%d, %d) is not a snap device", kGet, snbf_blk_major, minor);
    return -EINVAL;
  }
  if (node.started.load() != 0) return 0;
  snbf_log(kLogError, "%s(): Snap device snbf(%d, %d) has not been started yet", kGet,
           snbf_blk_major, minor);
  return -EINVAL;
}

int check_extents(const SnapNode& snap, const snbf_datablock_cmd& record) {
  if (record.data == 0) {
    snbf_log(kLogError, "%s(): NULL bitmap data pointer passed as input", kGet);
    return -EINVAL;
  }
  if (!is_chunk_size(record.extent_size)) {
    snbf_log(kLogError, "%s(): Extent size (%d) must have been a power of 2.", kGet,
             static_cast<int>(record.extent_size));
    return -EINVAL;
  }
  if (snap.chunk_size > record.extent_size) {
    snbf_log(kLogError, "%s(): Extent size (%d) must be bigger than chunk size (%d).", kGet,
             static_cast<int>(record.extent_size), static_cast<int>(snap.chunk_size));
    return -EINVAL;
  }
  return 0;
}

// Bytes of the answer. A map covers the snap's chunks, so its size does not depend on whether there
// is one.
u32 output_bytes(const SnapNode& snap, u32 chunks_per_bit) {
  const u64 bits = (snap.chunk_cnt + chunks_per_bit - 1) / chunks_per_bit;
  return static_cast<u32>((bits + 7) / 8);
}

// Under node_mutex: a stop, which destroys the map, waits for the export.
int export_map(SnapNode& snap, const snbf_datablock_cmd& record, u8** bitmap, u32* bytes) {
  KsMutexGuard hold{snap.node_mutex};
  if (int rc = check_snap(snap); rc != 0) return rc;
  if (int rc = check_extents(snap, record); rc != 0) return rc;
  const u32 chunks_per_bit = record.extent_size / snap.chunk_size;
  *bytes = output_bytes(snap, chunks_per_bit);
  if (record.size < *bytes) {
    snbf_log(kLogError, "%s(): Bitmap buffer is not large enough: should be %dB instead of %dB.",
             kGet, static_cast<int>(*bytes), static_cast<int>(record.size));
    return -EINVAL;
  }
  *bitmap = static_cast<u8*>(snbf_plat_virt_alloc(*bytes));
  if (*bitmap == nullptr) {
    snbf_log(kLogError, "%s(): Failed to allocated %d bytes of memory", kGet,
             static_cast<int>(*bytes));
    return -ENOMEM;
  }
  return snbf_blkbmp_export(&snap.blkbmp, chunks_per_bit, *bitmap, static_cast<int>(*bytes));
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_ioctl_get_datablock_bmp(Node& node, snbf_datablock_cmd& record) {
  snbf_log(1, "%s(): Returning datablock bitmap of snbf(%d, %d)", kGet, snbf_blk_major,
           static_cast<int>(node.minor));
  if (int rc = check_snap(node); rc != 0) return rc;
  u8* bitmap = nullptr;
  u32 bytes = 0;
  const int rc = export_map(as_snap(node), record, &bitmap, &bytes);
  ScopeExit free_bitmap{[bitmap] { snbf_plat_virt_free(bitmap); }};
  if (rc != 0) return rc;
  if (snbf_plat_copy_to_user(record.data, bitmap, bytes) != 0) {
    snbf_log(kLogError, "%s(): Failed to copyout the bitmap", kGet);
    return -EFAULT;
  }
  record.size = bytes;
  return 0;
}

int snbf_ioctl_test_datablock(snbf_datablock_test& record) {
  record.path[sizeof(record.path) - 1] = '\0';  // text from outside may lack its terminator
  const char* path = record.path;
  snbf_log(1, "%s(): Testing datablocks on %s", kTest, path);
  const Result<plat_devt> device = find_hdd(kTest, path);
  if (!device.ok()) return device.error();
  plat_bdev* bdev = snbf_open_bdev(device.value(), PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr);
  if (bdev == nullptr) {
    snbf_log(kLogError, "%s(): Failed to open %s", kTest, path);
    return -EIO;
  }
  ScopeExit close{[bdev] { snbf_close_bdev(bdev, PLAT_OPEN_SHARED, PLAT_MODE_READ, nullptr); }};
  if (snbf_is_mounted(bdev) != 0) {
    snbf_log(kLogError, "%s(): Can't test mounted HDD device %s", kTest, path);
    return -EBUSY;
  }
  return snbf_blkbmp_test(bdev);
}
