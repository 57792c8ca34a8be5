// SPDX-License-Identifier: GPL-2.0-only
// Which snaps hold their image from before a stop, and how they come back.
//
// Order at a resume:
//   1. judge all records; the nodes that are missing are created, oldest first: that is the order
//   of
//      their list. Nothing is lost yet, and nothing is ever undone by a deletion, which takes the
//      files
//   2. the records say "running", and the filter node has a new epoch: a crash from here loses the
//   snaps
//   3. resume, newest first. The first starts the filter node. A write that comes in between is
//   then
//      copied by the newer one, and an older one reads its file system's maps through the newer
//      one's files
//   4. nothing may have been written up to here: an older snap's chunks are not all the newer one's
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>

#include "record_file.h"
#include "snap_record.h"

namespace {

using snbf::lib::bmp_dir_of;
using snbf::lib::boot_id;
using snbf::lib::HostLock;
using snbf::lib::Nodes;
using snbf::lib::put_text;

struct Candidate {
  libsnbf_snap_record record;
  std::optional<snbf_info> node;  // while the driver has it
  std::string why;                // it cannot be resumed; empty: it can
};

bool has_size(const char* path, uint64_t size_bytes) {
  struct stat about;
  return ::stat(path, &about) == 0 && S_ISREG(about.st_mode) &&
         static_cast<uint64_t>(about.st_size) == size_bytes;
}

// Sizes as the driver gives them at the creation.
bool files_are_whole(const libsnbf_snap_record& record) {
  if (record.chunk_size == 0 || record.dev_size == 0) return false;
  const uint64_t chunks = (record.dev_size - 1) / record.chunk_size + 1;
  return has_size(record.cow_data_fname, chunks * record.chunk_size) &&
         has_size(record.cow_bmp_fname, (chunks - 1) / 8 + 1);
}

// Another snap, or anybody, may have written into them.
bool files_are_untouched(const libsnbf& handle, const libsnbf_snap_record& record) {
  const bool same_boot = boot_id(handle) == record.boot_id;
  return snbf::lib::fits_mark(record.cow_data_fname, record.cow_data_mark, same_boot) &&
         snbf::lib::fits_mark(record.cow_bmp_fname, record.cow_bmp_mark, same_boot);
}

// The filter node, as far as it decides for all of its snaps.
struct Ground {
  snbf_info filter;
  libsnbf_state state{};
  bool known = false;  // it has a record
  uint64_t head_hash = 0;
  uint64_t bitmaps_hash = 0;
};

int survey(libsnbf* handle, uint32_t filter_minor, Ground* out) {
  if (int rc = libsnbf_get_info(handle, filter_minor, &out->filter); rc != 0) return rc;
  if (out->filter.dev_type != SNBF_DEV_FILTER) return -EINVAL;
  const std::string dir = bmp_dir_of(out->filter);
  const int read = libsnbf_state_read(dir.c_str(), filter_minor, &out->state);
  if (snbf::lib::is_unread(read)) return read;
  out->known = read == 0;
  if (out->filter.started || !out->known) return 0;
  if (int rc = snbf::lib::hash_bitmaps(handle, out->filter, &out->bitmaps_hash); rc != 0) return rc;
  return snbf::lib::hash_head(out->filter.hdd_name, &out->head_hash);
}

std::string judge(libsnbf* handle, const Ground& ground, const Nodes& nodes,
                  const Candidate& candidate) {
  const libsnbf_snap_record& record = candidate.record;
  if (candidate.node && candidate.node->started) return LIBSNBF_SNAP_RUNS;
  if (!record.stopped_clean) return LIBSNBF_SNAP_UNCLEAN;
  if (ground.filter.started || !ground.known || record.epoch != ground.state.epoch) {
    return LIBSNBF_SNAP_NODE_STARTED;
  }
  if (record.dev_size != ground.filter.dev_size) return LIBSNBF_SNAP_NODE_SIZE;
  if (ground.head_hash != ground.state.head_hash || ground.bitmaps_hash != record.bitmaps_hash) {
    return LIBSNBF_SNAP_NODE_WRITTEN;
  }
  if (!files_are_whole(record)) return LIBSNBF_SNAP_FILES;
  if (!files_are_untouched(*handle, record)) return LIBSNBF_SNAP_FILES_CHANGED;
  const std::string dir = std::filesystem::path(record.cow_data_fname).parent_path();
  if (libsnbf_cow_dir_check(handle, dir.c_str(), ground.filter.minor) != 0) {
    return LIBSNBF_SNAP_PLACE;
  }
  if (!candidate.node && nodes.names.contains(record.name)) return LIBSNBF_SNAP_NAME;
  return "";
}

int judge_all(libsnbf* handle, const Ground& ground, std::vector<Candidate>* out) {
  std::vector<snbf_info> snaps;
  std::vector<libsnbf_snap_record> records;
  Nodes nodes;
  if (int rc = snbf::lib::snap_infos(handle, ground.filter, &snaps); rc != 0) return rc;
  if (int rc = snbf::lib::list_nodes(handle, &nodes); rc != 0) return rc;
  // What a record that is damaged was of is not known: perhaps of a newer one.
  bool newer_lost = false;
  const int read =
      snbf::lib::snap_records(bmp_dir_of(ground.filter), ground.filter.uuid, &records, &newer_lost);
  if (read != 0) return read;
  for (const auto& record : records) {
    Candidate candidate{record, std::nullopt, ""};
    for (const snbf_info& snap : snaps) {
      if (std::strcmp(snap.uuid, record.uuid) == 0) candidate.node = snap;
    }
    out->push_back(candidate);
  }
  for (auto at = out->rbegin(); at != out->rend(); ++at) {
    at->why = judge(handle, ground, nodes, *at);
    if (at->why.empty() && newer_lost) at->why = LIBSNBF_SNAP_NEWER;
    newer_lost = newer_lost || !at->why.empty();
  }
  return 0;
}

int add_node(libsnbf* handle, const snbf_info& filter, Candidate* candidate) {
  Nodes nodes;
  uint32_t minor_max = 0;
  if (int rc = snbf::lib::list_nodes(handle, &nodes); rc != 0) return rc;
  if (int rc = libsnbf_minor_max(handle, &minor_max); rc != 0) return rc;
  const auto minor = snbf::lib::choose_snap_minor(bmp_dir_of(filter), nodes, minor_max);
  if (!minor) return -ENOSPC;
  snbf_snap_node_cmd node{};
  node.snap_minor = static_cast<int32_t>(*minor);
  node.chunk_size = candidate->record.chunk_size;
  snbf::lib::fill_snap_node(candidate->record, filter.minor, &node);
  if (int rc = snbf::lib::add_snap_node_locked(handle, &node); rc != 0) return rc;
  candidate->node.emplace();
  return libsnbf_get_info(handle, *minor, &*candidate->node);
}

// Writes that the node has passed on since it was made; nothing: it cannot be told.
std::optional<uint64_t> writes_of(libsnbf* handle, uint32_t minor) {
  uint32_t major = 0;
  if (libsnbf_blk_major(handle, &major) != 0) return std::nullopt;
  std::ifstream file(handle->sys_root + "/dev/block/" + std::to_string(major) + ":" +
                     std::to_string(minor) + "/stat");
  uint64_t number = 0;
  for (int field = 1; field <= 5; ++field) {
    if (!(file >> number)) return std::nullopt;
  }
  return number;
}

int mark_running(libsnbf* handle, const Ground& ground, std::vector<Candidate*>& chosen) {
  const std::string dir = bmp_dir_of(ground.filter);
  for (Candidate* candidate : chosen) {
    libsnbf_snap_record record = candidate->record;
    record.stopped_clean = 0;
    if (int rc = snbf::lib::mark_files(&record, false); rc != 0) return rc;
    put_text(record.boot_id, boot_id(*handle));
    if (int rc = libsnbf_snap_record_write(dir.c_str(), &record); rc != 0) return rc;
  }
  libsnbf_state state = ground.state;
  state.stopped_clean = 0;
  state.epoch = snbf::lib::new_epoch();
  put_text(state.boot_id, boot_id(*handle));
  return libsnbf_state_write(dir.c_str(), ground.filter.minor, &state);
}

int resume_locked(libsnbf* handle, uint32_t filter_minor, uint32_t* resumed) {
  Ground ground;
  std::vector<Candidate> candidates;
  std::vector<Candidate*> chosen;
  if (int rc = survey(handle, filter_minor, &ground); rc != 0) return rc;
  if (int rc = judge_all(handle, ground, &candidates); rc != 0) return rc;
  for (Candidate& candidate : candidates) {
    if (candidate.why.empty()) chosen.push_back(&candidate);
  }
  for (Candidate* candidate : chosen) {
    if (candidate->node) continue;
    if (int rc = add_node(handle, ground.filter, candidate); rc != 0) return rc;
  }
  if (chosen.empty()) return 0;
  const auto writes_before = writes_of(handle, filter_minor);
  if (int rc = mark_running(handle, ground, chosen); rc != 0) return rc;
  std::reverse(chosen.begin(), chosen.end());
  for (Candidate* candidate : chosen) {
    const snbf_resume_cmd resume{candidate->node->minor, 1,
                                 candidate->record.stop_pending ? 1u : 0u,
                                 candidate->record.del_pending ? 1u : 0u};
    if (int rc = snbf::lib::resume_snap_locked(handle, resume); rc != 0) return rc;
    // Given up at once, where there was no memory for the thread that copies: it is started, and answers no read.
    snbf_info now;
    if (int rc = libsnbf_get_info(handle, resume.minor, &now); rc != 0) return rc;
    if (!now.snap_valid) return -ENODATA;
    ++*resumed;
  }
  if (writes_of(handle, filter_minor) == writes_before) return 0;
  std::reverse(chosen.begin(), chosen.end());
  for (Candidate* candidate : chosen) snbf::lib::stop_node_locked(handle, candidate->node->minor);
  *resumed = 0;
  return -ESTALE;
}

}  // namespace

extern "C" {

int libsnbf_snap_each(libsnbf* handle, uint32_t filter_minor, libsnbf_snap_visit_fn visit,
                      void* context) {
  return snbf::lib::at_border([&] {
    Ground ground;
    std::vector<Candidate> candidates;
    HostLock lock(*handle);
    if (lock.error()) return lock.error();
    if (int rc = survey(handle, filter_minor, &ground); rc != 0) return rc;
    if (int rc = judge_all(handle, ground, &candidates); rc != 0) return rc;
    for (const Candidate& candidate : candidates) {
      visit(context, &candidate.record, candidate.why.c_str());
    }
    return 0;
  });
}

int libsnbf_snap_resume(libsnbf* handle, uint32_t filter_minor, uint32_t* resumed) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    if (lock.error()) return lock.error();
    *resumed = 0;
    const int rc = resume_locked(handle, filter_minor, resumed);
    if (*resumed > 0) snbf::lib::announce(handle, filter_minor, true);
    return rc;
  });
}

}  // extern "C"
