// SPDX-License-Identifier: GPL-2.0-only
#include "store.h"

#include <fmt/format.h>

#include "failure.h"
#include "signals.h"

namespace snbf {

void end_if_interrupted(const std::string& left) {
  if (!SignalsNoted::any()) return;
  throw Failure(kFailed, fmt::format("interrupted: {}, and the bitmap is as it was", left));
}

void describe_node(const snbf_info& node, Manifest* manifest) {
  manifest->node_uuid = node.uuid;
  manifest->node = node.name;
  manifest->partition = node.hdd_name;
  manifest->size = node.dev_size;
  manifest->extent_size = node.extent_size;
}

}  // namespace snbf
