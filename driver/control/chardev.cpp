// SPDX-License-Identifier: GPL-2.0-only
#include "control/chardev.h"

#include "core/log.h"
#include "platform/control.h"

namespace snbf {

namespace {

constexpr char kDeviceName[] = "snbf";
constinit int registered = 0;

}  // namespace

}  // namespace snbf

int snbf_char_init() {
  constexpr const char* kOrigin = "snbf_char_init";
  snbf_log(2, "%s(): Initializing character device", kOrigin);
  const int rc = snbf_plat_chrdev_register(snbf_chr_major, snbf::kDeviceName);
  if (rc < 0) {
    snbf_log(snbf::kLogError, "%s(): Failed to register character device: rc=%d.", kOrigin, rc);
    return rc;
  }
  if (snbf_chr_major == 0) snbf_chr_major = rc;
  snbf_log(2, "%s(): snbf_chr_major=%d", kOrigin, snbf_chr_major);
  snbf::registered = 1;
  return 0;
}

int snbf_char_destroy() {
  if (!snbf::registered) return 0;
  snbf_log(2, "%s(): Unregistering character device driver", "snbf_char_destroy");
  snbf_plat_chrdev_unregister(snbf_chr_major, snbf::kDeviceName);
  snbf::registered = 0;
  return 0;
}

extern "C" int snbf_char_open(void*, void*) { return 0; }

extern "C" int snbf_char_release(void*, void*) { return 0; }

extern "C" plat_s64 snbf_char_read(void*, plat_u64, plat_size, plat_s64*) { return 0; }

extern "C" plat_s64 snbf_char_write(void*, plat_u64, plat_size, plat_s64*) { return 0; }
