// SPDX-License-Identifier: GPL-2.0-only
#include "attach.h"

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>

#include "failure.h"
#include "output.h"

namespace snbf {

namespace {

// Of the minor whose files are in the way.
Failure belongs_to_another(const AttachWish& wish, uint32_t minor) {
  libsnbf_state state{};
  libsnbf_state_read(wish.bitmaps.c_str(), minor, &state);
  return {kUnsafe,
          fmt::format("attaching {}: the files snbf{}.* in {} belong to {}, which lay over another "
                      "partition: {} ({})",
                      wish.partition, minor, wish.bitmaps, state.name, state.hdd_name,
                      state.device),
          "choose another --name, --minor or --bitmaps; or take them over with --adopt: every "
          "extent then counts as changed",
          -EMEDIUMTYPE};
}

Failure refusal(int rc, const AttachWish& wish, const Driver& driver) {
  const Failure plain = failure_of(rc, fmt::format("attaching {}", wish.partition));
  for (const snbf_info& node : driver.filters()) {
    if (rc == -EINVAL && device_of(node.hdd_name) == device_of(wish.partition)) {
      return {
          kFailed,
          fmt::format("attaching {}: the node {} lies over it already", wish.partition, node.name),
          "use that node, or detach it first", rc};
    }
    if (rc == -EINVAL && wish.minor >= 0 && node.minor == static_cast<uint32_t>(wish.minor)) {
      return {kFailed, fmt::format("the minor {} belongs to the node {}", wish.minor, node.name),
              "leave --minor out, or choose another", rc};
    }
  }
  if (rc != -EBUSY) return plain;
  std::string who = joined(holders_of(device_of(wish.partition)));
  if (who.empty()) who = "somebody who cannot be seen from here holds it";
  return {kBusy, fmt::format("attaching {}: the partition is in use: {}", wish.partition, who),
          "unmount it first; after the attach, mount the node in its place", rc};
}

// The bitmap files are named by the minor, so that a name that gets another one starts afresh.
std::string why_other_minor(const Driver& driver, const AttachWish& wish, int before) {
  snbf_info holder;
  if (wish.minor >= 0) return "asked for with --minor";
  if (libsnbf_get_info(driver.get(), static_cast<uint32_t>(before), &holder) != 0) {
    return "beyond what the driver was loaded for";
  }
  const char* kind = holder.dev_type == SNBF_DEV_SNAP ? "snap" : "node";
  return fmt::format("{} belongs to the {} {} now", before, kind, holder.name);
}

}  // namespace

std::string minor_text(const Attached& made) {
  if (made.minor_before < 0) return "";
  return fmt::format("{} had the minor {} before and gets {}, with other bitmap files: {}",
                     made.node.name, made.minor_before, made.node.minor, made.minor_reason);
}

Attached attach_node(const Driver& driver, const AttachWish& wish) {
  const std::string bitmaps = std::filesystem::canonical(wish.bitmaps);
  libsnbf_attach_request request{};
  request.partition = wish.partition.c_str();
  request.name = wish.name.c_str();
  request.bmp_dir = bitmaps.c_str();
  request.minor = wish.minor;
  request.extent_size = wish.extent_size;
  request.adopt = wish.adopt;
  const int rc = libsnbf_attach(driver.get(), &request);
  if (rc == -EMEDIUMTYPE) throw belongs_to_another(wish, request.minor_used);
  if (rc != 0) throw refusal(rc, wish, driver);
  Attached made{driver.info(request.minor_used), request.distrust, request.minor_before, ""};
  if (made.minor_before >= 0) made.minor_reason = why_other_minor(driver, wish, made.minor_before);
  return made;
}

}  // namespace snbf
