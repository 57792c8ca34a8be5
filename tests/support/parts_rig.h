// Parts of the driver without the driver around them.
#pragma once

#include <cstring>
#include <string>

#include "base/errno.h"
#include "block/node.h"
#include "core/log.h"
#include "core/memory.h"
#include "filter/kdirtyd.h"
#include "platform/block.h"
#include "sim_test.h"

namespace snbf::sim {

// The log buffer, which load and unload own otherwise, and every line switched on.
class LoggedParts {
 public:
  explicit LoggedParts(int debug = 4) {
    snbf_debug = debug;
    snbf_debug_init();
  }
  ~LoggedParts() {
    snbf_debug_destroy();
    snbf_debug = 1;
  }
};

// A simulated device, opened as the driver opens a partition.
class OpenDevice {
 public:
  OpenDevice(Sim& sim, const DeviceOptions& options) : device(sim.add_device(options)) {
    EXPECT_EQ(snbf_plat_bdev_open(device->number(), kMode, PLAT_OPEN_SHARED, nullptr, &bdev), 0);
  }
  ~OpenDevice() { snbf_plat_bdev_close(bdev, PLAT_OPEN_SHARED, kMode, nullptr); }

  Device* device;
  plat_bdev* bdev = nullptr;

 private:
  static constexpr int kMode = PLAT_MODE_READ | PLAT_MODE_WRITE;
};

// A filter node's record with its bitmaps and kdirtyd, in no table and without a disk.
class BareFilter {
 public:
  BareFilter(Sim& sim, u32 extent_count, u32 minor = 3, const std::string& dir = "/var/bmp")
      : log_(4) {
    sim.make_dir("/var");
    sim.make_dir("/var/bmp");
    node = heap_new<FilterNode>(PLAT_ALLOC_NORMAL);
    node->dev_type = kFilterNode;
    node->minor = minor;
    node->extent_size = 4096;
    node->extent_shift = 12;
    node->extent_cnt = extent_count;
    node->bmp_mutex.init();
    node->bmp_spin.init("bmp_spin");
    init_parking(*node);
    node->incr_bmp_size = node->diff_bmp_size = ((extent_count - 1) >> 3) + 1;
    node->incr_bmp = static_cast<u32*>(snbf_plat_virt_alloc(node->incr_bmp_size));
    node->diff_bmp = static_cast<u32*>(snbf_plat_virt_alloc(node->diff_bmp_size));
    set_path(node->incr_bmp_fname, dir, minor, "incr");
    set_path(node->diff_bmp_fname, dir, minor, "diff");
    EXPECT_EQ(snbf_start_kdirtyd(), 0);
    sim.log().clear();
  }
  ~BareFilter() {
    EXPECT_EQ(snbf_yield_to_dirty_requests(*node, 3600), 0);
    EXPECT_EQ(snbf_stop_kdirtyd(), 0);
    snbf_plat_virt_free(node->incr_bmp);
    snbf_plat_virt_free(node->diff_bmp);
    snbf_plat_heap_free(node);
  }

  Bytes incr() const { return copy(node->incr_bmp, node->incr_bmp_size); }
  Bytes diff() const { return copy(node->diff_bmp, node->diff_bmp_size); }
  void fill(int incr_byte, int diff_byte) {
    SpinGuard hold{node->bmp_spin};
    std::memset(node->incr_bmp, incr_byte, node->incr_bmp_size);
    std::memset(node->diff_bmp, diff_byte, node->diff_bmp_size);
  }
  void set_dirty(int incr, int diff) {
    SpinGuard hold{node->bmp_spin};
    node->incr_bmp_dirty = incr;
    node->diff_bmp_dirty = diff;
  }
  int incr_dirty() const {
    SpinGuard hold{node->bmp_spin};
    return node->incr_bmp_dirty;
  }
  int diff_dirty() const {
    SpinGuard hold{node->bmp_spin};
    return node->diff_bmp_dirty;
  }

  FilterNode* node;

 private:
  Bytes copy(const u32* bits, u32 bytes) const {
    SpinGuard hold{node->bmp_spin};
    const u8* from = reinterpret_cast<const u8*>(bits);
    return Bytes(from, from + bytes);
  }
  static void set_path(char (&to)[kPathBytes], const std::string& dir, u32 minor,
                       const char* suffix) {
    std::snprintf(to, sizeof(to), "%s/snbf%u.%s", dir.c_str(), minor, suffix);
  }

  LoggedParts log_;
};

}  // namespace snbf::sim
