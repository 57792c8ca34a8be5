/* SPDX-License-Identifier: GPL-2.0-only */
/* The kernel's allocation flags for a mode of the contract. */
#ifndef SNBF_LINUX_GFP_H
#define SNBF_LINUX_GFP_H

#include <linux/gfp.h>

#include "platform/types.h"

/* No warning: the driver reports each failed allocation itself, or has another way. */
static inline gfp_t snbf_gfp(plat_alloc_mode mode) {
  switch (mode) {
    case PLAT_ALLOC_NORMAL:
      return GFP_KERNEL | __GFP_NOWARN;
    case PLAT_ALLOC_NOIO:
      return GFP_NOIO | __GFP_NOWARN;
    case PLAT_ALLOC_ATOMIC:
      break;
  }
  return GFP_ATOMIC | __GFP_NOWARN;
}

#endif
