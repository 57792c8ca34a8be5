// SPDX-License-Identifier: GPL-2.0-only
// How a capture gives back what it has taken: its own, or that of one that was cut off.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture_state.h"
#include "snap_record.h"

namespace snbf::lib {
namespace {

// A new block device is opened by programs that look what is on it.
constexpr auto kLookersGoWithin = std::chrono::seconds(2);
constexpr auto kLookAgain = std::chrono::milliseconds(50);

}  // namespace
}  // namespace snbf::lib

int libsnbf_capture::merge_back(const snbf::lib::CaptureRecord& lost) {
  const auto size = static_cast<uint32_t>(lost.incr.size());
  if (int rc = libsnbf_merge_bmp(handle, node.minor, SNBF_BMP_INCR, lost.incr.data(), size);
      rc != 0) {
    return rc;
  }
  if (!lost.full) return 0;
  return libsnbf_merge_bmp(handle, node.minor, SNBF_BMP_DIFF, lost.diff.data(), size);
}

// Nobody knows what the bitmap had lost.
int libsnbf_capture::count_everything(bool full) {
  if (int rc = libsnbf_set_bmp(handle, node.minor, SNBF_BMP_INCR, nullptr, 0); rc != 0) return rc;
  if (!full) return 0;
  return libsnbf_set_bmp(handle, node.minor, SNBF_BMP_DIFF, nullptr, 0);
}

// The bitmaps become what they would be had we never come. If even that fails, the journal stays.
int libsnbf_capture::give_back() {
  if (stage == Stage::Open) return 0;
  stage = Stage::Open;
  if (int rc = see_node(); rc != 0) return rc;
  int rc = 0;
  if (taken == Taken::Known) rc = merge_back(record);
  if (taken == Taken::Unknown) rc = count_everything(record.full);
  return rc != 0 ? rc : drop_journal();
}

// 0 and `postponed`, or a negated error number.
int libsnbf_capture::delete_node(uint32_t minor, const char* uuid, int* postponed) {
  const auto give_up = std::chrono::steady_clock::now() + snbf::lib::kLookersGoWithin;
  int rc;
  while ((rc = libsnbf_snap_delete(handle, minor, uuid, postponed)) == -EBUSY &&
         std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(snbf::lib::kLookAgain);
  }
  return rc;
}

int libsnbf_capture::drop_snap() {
  if (!snap) return 0;
  int postponed = 0;
  const int rc = delete_node(snap->minor, snap->uuid, &postponed);
  snap.reset();
  return rc != 0 ? rc : postponed;
}

// Snaps of captures that were cut off, as nodes or as records.
int libsnbf_capture::remove_left_over(uint32_t* left) {
  std::vector<snbf_info> nodes;
  std::vector<libsnbf_snap_record> records;
  *left = 0;
  if (int rc = see_node(); rc != 0) return rc;
  if (int rc = snbf::lib::snap_infos(handle, node, &nodes); rc != 0) return rc;
  if (int rc = snbf::lib::snap_records(dir, node.uuid, &records); rc != 0) return rc;
  for (const auto& found : records) {
    if (!found.temporary) continue;
    const snbf_info* there = nullptr;
    for (const snbf_info& candidate : nodes) {
      if (std::strcmp(candidate.uuid, found.uuid) == 0) there = &candidate;
    }
    if (there && there->del_pending) continue;  // it goes with the older ones
    int postponed = 0;
    const int rc = there ? delete_node(there->minor, there->uuid, &postponed)
                         : libsnbf_snap_discard(handle, node.minor, found.name);
    if (rc != 0) ++*left;
  }
  return 0;
}

int libsnbf_capture::distrust() {
  snbf::lib::HostLock host(*handle);
  if (host.error()) return host.error();
  libsnbf_state state;
  if (int rc = see_store(&state); rc != 0) return rc;
  snbf::lib::put_text(state.distrust, LIBSNBF_WHY_CAPTURE);
  return libsnbf_state_write(dir.c_str(), node.minor, &state);
}

// What becomes of a capture that was cut off, now that its journal is read.
int libsnbf_capture::settle_left(const snbf::lib::CaptureRecord& left, bool is_known,
                                 libsnbf_recovered* out) {
  if (left.captured && is_known) {
    *out = LIBSNBF_RECOVERED_COMMITTED;
    return record_point(left.point, left.full, left.time);
  }
  if (left.captured && left.incr.size() == node.incr_bmp_size) {
    *out = LIBSNBF_RECOVERED_MERGED;
    return merge_back(left);
  }
  *out = LIBSNBF_RECOVERED_ALL;
  const int rc = count_everything(left.full);
  return rc != 0 ? rc : distrust();
}

int libsnbf_capture::recover(libsnbf_capture_known_fn known, void* context, libsnbf_recovered* out,
                             uint32_t* snaps_left) {
  std::optional<snbf::lib::CaptureRecord> left;
  *out = LIBSNBF_RECOVERED_NOTHING;
  if (stage != Stage::Open) return -EALREADY;
  if (int rc = see_node(); rc != 0) return rc;
  if (int rc = see_store(); rc != 0) return rc;
  if (int rc = journal.read(&left); rc != 0) return rc;
  if (left && !left->node_uuid.empty() && left->node_uuid != node.uuid) return -EXDEV;
  if (int rc = remove_left_over(snaps_left); rc != 0 || !left) return rc;
  const bool is_known = left->captured && known &&
                        known(context, left->destination.c_str(), left->point.c_str()) == 1;
  const int rc = settle_left(*left, is_known, out);
  return rc != 0 ? rc : drop_journal();
}
