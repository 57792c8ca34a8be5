// SPDX-License-Identifier: GPL-2.0-only
// What the next backup does about one that was cut off.
#include <fmt/format.h>

#include <cstring>

#include "capture.h"
#include "failure.h"
#include "reasons.h"
#include "snaps.h"

namespace snbf {

namespace {

bool stands_in_manifest(const CaptureRecord& record) {
  try {
    const auto manifest = read_manifest(record.destination);
    if (!manifest) return false;
    for (const Point& point : manifest->points) {
      if (point_name(*manifest, point.id) == record.point) return true;
    }
  } catch (const Failure&) {
    // A destination that cannot be read has no point of ours.
  }
  return false;
}

// Nobody knows what the bitmap had lost.
void count_everything(const Driver& driver, const snbf_info& node, bool full) {
  driver.set_all(node, SNBF_BMP_INCR);
  if (full) driver.set_all(node, SNBF_BMP_DIFF);
  libsnbf_state state = read_state(node);
  std::strncpy(state.distrust, kWhyCrash, sizeof state.distrust - 1);
  write_state(node, state);
}

}  // namespace

void record_point(const snbf_info& node, const std::string& point, bool full) {
  libsnbf_state state = read_state(node);
  const auto put = [](auto& field, const std::string& text) {
    std::memset(field, 0, sizeof field);
    text.copy(field, sizeof field - 1);
  };
  put(state.incr_point, point);
  if (full) {
    put(state.diff_point, point);
    put(state.distrust, "");
  }
  write_state(node, state);
}

std::string recover_capture(const Driver& driver, const snbf_info& node) {
  const CaptureJournal journal(bmp_dir_of(node), node.minor);
  const auto record = journal.read();
  if (record && !record->node_uuid.empty() && record->node_uuid != node.uuid) {
    throw Failure(kUnsafe,
                  fmt::format("{} is of a backup of another node that was cut off", journal.path()),
                  "remove the file once the next backup of that node is made with --level full");
  }
  remove_temporary_snaps(driver, node);
  if (!record) return "";
  if (record->captured && stands_in_manifest(*record)) {
    record_point(node, record->point, record->full);
    journal.drop();
    return "an earlier backup was cut off at its very end; it is complete";
  }
  if (record->captured && record->incr.same_shape(driver.empty_bitmap(node))) {
    driver.merge(node, SNBF_BMP_INCR, record->incr);
    if (record->full) driver.merge(node, SNBF_BMP_DIFF, record->diff);
    journal.drop();
    return "an earlier backup was cut off; what it had taken counts as changed again";
  }
  count_everything(driver, node, record->full);
  journal.drop();
  return "an earlier backup was cut off while it took the bitmap: every extent counts as changed";
}

}  // namespace snbf
