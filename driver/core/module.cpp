// SPDX-License-Identifier: GPL-2.0-only
#include "core/module.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "block/destroy.h"
#include "block/entry.h"
#include "control/chardev.h"
#include "control/proc.h"
#include "core/log.h"
#include "platform/log.h"

namespace snbf {

namespace {

constexpr u32 kUnloadRetryMs = 100;

// From a successful load to the end of the teardown.
constinit bool loaded = false;

// What a step cannot undo itself goes too: after a failed load the text is gone.
int bring_up() {
  if (snbf_max_blk_minor < 0) {
    snbf_log(kLogError, "%s(): Invalid snbf_max_blk_minor=%d.", "snbf_init", snbf_max_blk_minor);
    return -EINVAL;
  }
  if (int rc = snbf_debug_init(); rc != 0) return rc;
  ScopeExit drop_log{[] { snbf_debug_destroy(); }};
  init_table_locks();
  ScopeExit drop_proc{[] { snbf_remove_proc(); }};
  if (int rc = snbf_create_proc(); rc != 0) return rc;
  if (int rc = snbf_char_init(); rc != 0) return rc;
  ScopeExit drop_char{[] { snbf_char_destroy(); }};
  ScopeExit drop_block{[] { snbf_block_fini(); }};
  if (int rc = snbf_block_init(); rc != 0) return rc;
  drop_block.dismiss();
  drop_char.dismiss();
  drop_proc.dismiss();
  drop_log.dismiss();
  return 0;
}

}  // namespace

}  // namespace snbf

extern "C" int snbf_init() {
  constexpr const char* kOrigin = "snbf_init";
  snbf_log(1, "%s(): Initializing the driver.", kOrigin);
  snbf_log(1, "%s(): Built: %s %s", kOrigin, snbf_plat_build_date(), snbf_plat_build_time());
  snbf_log(1, "%s(): UTS_RELEASE: %s", kOrigin, snbf_plat_kernel_release());
  const int rc = snbf::bring_up();
  snbf::loaded = rc == 0;
  snbf_log(1, "%s(): rc=%d", kOrigin, rc);
  // The line above has made the buffer anew.
  if (rc != 0) snbf_debug_destroy();
  return rc;
}

void snbf_cleanup() {
  snbf_log(1, "%s(): The driver is being unloaded.", "snbf_cleanup");
  if (snbf_block_destroy() != 0) return;
  if (snbf_char_destroy() != 0) return;
  if (snbf_remove_proc() != 0) return;
  snbf_debug_destroy();
  snbf::loaded = false;
}

extern "C" void snbf_unload() {
  // The module's exit cannot refuse: its text is freed when it returns.
  for (snbf_cleanup(); snbf::loaded; snbf_cleanup()) snbf_plat_sleep_ms(snbf::kUnloadRetryMs);
}
