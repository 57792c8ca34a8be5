// SPDX-License-Identifier: GPL-2.0-only
#include "store.h"

#include "failure.h"
#include "signals.h"

namespace snbf {

void end_if_interrupted() {
  if (!SignalsNoted::any()) return;
  throw Failure(kFailed, "interrupted: nothing was kept, and the bitmap is as it was");
}

void describe_node(const snbf_info& node, Manifest* manifest) {
  manifest->node_uuid = node.uuid;
  manifest->node = node.name;
  manifest->partition = node.hdd_name;
  manifest->size = node.dev_size;
  manifest->extent_size = node.extent_size;
}

}  // namespace snbf
