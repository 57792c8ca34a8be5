// SPDX-License-Identifier: GPL-2.0-only
/* The module: parameters, load and unload. */
#include <linux/init.h>
#include <linux/module.h>
#include <linux/rcupdate.h>

#include "bio.h"
#include "freeze.h"
#include "module.h"
#include "platform/entry.h"

module_param(snbf_chr_major, int, 0444);
MODULE_PARM_DESC(snbf_chr_major, "major number of the control device, 0 for a free one");
module_param(snbf_debug, int, 0444);
MODULE_PARM_DESC(snbf_debug, "verbosity of the log, 0 (errors only) to 4");
module_param(snbf_max_blk_minor, int, 0444);
MODULE_PARM_DESC(snbf_max_blk_minor, "highest minor number of a node");
module_param(snbf_blk_major, int, 0444);
MODULE_PARM_DESC(snbf_blk_major, "major number of the nodes, 0 for a free one");

static bool stragglers;

void snbf_expect_stragglers(void) {
  if (!READ_ONCE(stragglers)) WRITE_ONCE(stragglers, true);
}

static int __init load_driver(void) {
  int rc = snbf_init();

  if (rc != 0) return rc;
  rc = snbf_control_publish();
  if (rc != 0) snbf_unload();
  return rc;
}

static int __init snbf_module_load(void) {
  int rc = snbf_bio_sets_init();

  if (rc != 0) return rc;
  rc = snbf_freezes_init();
  if (rc != 0) goto no_freezes;
  rc = snbf_kernel_calls_init();
  if (rc != 0) goto no_kernel_calls;
  rc = load_driver();
  if (rc == 0) return 0;
  snbf_kernel_calls_exit();
no_kernel_calls:
  snbf_freezes_exit();
no_freezes:
  snbf_bio_sets_exit();
  return rc;
}

static void __exit snbf_module_unload(void) {
  snbf_unload();
  snbf_freezes_exit();
  snbf_kernel_calls_exit();
  snbf_bio_sets_exit();
  /* Freeing the module waits by itself for those that cannot be preempted, as in an interrupt. */
  if (stragglers) synchronize_rcu_tasks();
}

module_init(snbf_module_load);
module_exit(snbf_module_unload);

MODULE_DESCRIPTION("Block Filtering and Snap Driver");
MODULE_LICENSE("GPL");
