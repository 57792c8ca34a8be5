// SPDX-License-Identifier: GPL-2.0-only
// Snaps: created, deleted and resumed, with their records kept in step.
//
// Order at a creation, so that a crash at any point leaves something that can be found and taken
// away, and that nobody takes for an image:
//   1. the record, with the names of the files, is on the disk and does not say "clean"
//   2. the node; 3. its start, which makes or empties the files; 4. the record knows the files
//   again
// and at a deletion: the record says "deleting"; the driver deletes; the record goes.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>

#include "record_file.h"
#include "snap_record.h"

namespace {

using snbf::lib::bmp_dir_of;
using snbf::lib::boot_id;
using snbf::lib::HostLock;
using snbf::lib::Nodes;
using snbf::lib::put_text;

constexpr uint32_t kChunkDefault = 64 << 10;

int find_filter(libsnbf* handle, uint32_t minor, snbf_info* out) {
  if (int rc = libsnbf_get_info(handle, minor, out); rc != 0) return rc;
  return out->dev_type == SNBF_DEV_FILTER ? 0 : -EINVAL;
}

std::string new_uuid(const libsnbf& handle) {
  return "{" + snbf::lib::read_line(handle.proc_root + "/sys/kernel/random/uuid") + "}";
}

// -EDOM: the driver would refuse it, and keep its table locked.
int choose_chunk(libsnbf* handle, const snbf_info& filter, uint32_t asked, uint32_t* out) {
  const uint32_t chunk = asked != 0 ? asked : kChunkDefault;
  *out = chunk;
  if (filter.snap_cnt == 0) return 0;
  snbf_info sibling;
  if (int rc = libsnbf_get_info(handle, filter.snap_minors[0], &sibling); rc != 0) return rc;
  *out = sibling.chunk_size;
  if (asked == 0) return 0;
  return libsnbf_chunk_size_on(chunk, filter.dev_size) == sibling.chunk_size ? 0 : -EDOM;
}

// What a creation needs to know, and its record.
struct Creation {
  snbf_info filter;
  std::string dir;
  libsnbf_snap_record record{};
  snbf_snap_node_cmd node{};
};

// A start empties the files of its snap: they must be nobody else's, by whatever path.
int refuse_files_of_others(libsnbf* handle, const char* cow_dir, const Creation& made) {
  std::set<snbf::lib::FileId> owned;
  if (int rc = snbf::lib::files_of_snaps(handle, cow_dir, &owned); rc != 0) return rc;
  for (const char* path : {made.record.cow_data_fname, made.record.cow_bmp_fname}) {
    const auto id = snbf::lib::file_id(path);
    if (id && owned.contains(*id)) return -ETXTBSY;
  }
  return 0;
}

int name_files(const libsnbf_snap_request& request, Creation* made) {
  const std::string stem = std::string(request.cow_dir) + "/" + request.name;
  if (!put_text(made->record.cow_data_fname, stem + ".cow") ||
      !put_text(made->record.cow_bmp_fname, stem + ".cowmap")) {
    return -ENAMETOOLONG;
  }
  struct stat about;
  for (const char* path : {made->record.cow_data_fname, made->record.cow_bmp_fname}) {
    if (::lstat(path, &about) == 0 && !request.overwrite) return -ENOTEMPTY;
  }
  return 0;
}

int choose_name(libsnbf* handle, const libsnbf_snap_request& request, Creation* made) {
  Nodes nodes;
  uint32_t minor_max = 0;
  libsnbf_snap_record left_over;
  if (!libsnbf_name_is_safe(request.name) || snbf::lib::is_driver_name(request.name))
    return -EILSEQ;
  if (int rc = snbf::lib::list_nodes(handle, &nodes); rc != 0) return rc;
  if (nodes.names.contains(request.name)) return -EEXIST;
  if (libsnbf_snap_record_read(made->dir.c_str(), request.name, &left_over) != -ENOENT) {
    return -EEXIST;
  }
  if (int rc = libsnbf_minor_max(handle, &minor_max); rc != 0) return rc;
  const auto minor = snbf::lib::choose_snap_minor(made->dir, nodes, minor_max);
  if (!minor || made->filter.snap_cnt >= SNBF_MAX_SNAPS) return -ENOSPC;
  made->node.snap_minor = static_cast<int32_t>(*minor);
  return 0;
}

int plan_creation(libsnbf* handle, const libsnbf_snap_request& request, Creation* made) {
  if (int rc = find_filter(handle, request.filter_minor, &made->filter); rc != 0) return rc;
  made->dir = bmp_dir_of(made->filter);
  if (int rc = choose_name(handle, request, made); rc != 0) return rc;
  if (int rc = libsnbf_cow_dir_check(handle, request.cow_dir, request.filter_minor); rc != 0) {
    return rc;
  }
  if (int rc = name_files(request, made); rc != 0) return rc;
  if (int rc = refuse_files_of_others(handle, request.cow_dir, *made); rc != 0) return rc;
  if (int rc = choose_chunk(handle, made->filter, request.chunk_size, &made->node.chunk_size);
      rc != 0) {
    return rc;
  }
  std::vector<libsnbf_snap_record> others;
  if (int rc = snbf::lib::snap_records(made->dir, made->filter.uuid, &others); rc != 0) return rc;
  libsnbf_snap_record& record = made->record;
  record.sequence = others.empty() ? 1 : others.back().sequence + 1;
  record.dev_size = made->filter.dev_size;
  record.chunk_size = libsnbf_chunk_size_on(made->node.chunk_size, record.dev_size);
  record.created = std::time(nullptr);
  record.temporary = request.temporary;
  put_text(record.name, request.name);
  put_text(record.node_uuid, made->filter.uuid);
  put_text(record.uuid, new_uuid(*handle));
  put_text(record.boot_id, boot_id(*handle));
  return 0;
}

// The start made the files; a copy that failed since, for want of room or by a bad disk, has cost
// the snap already.
int see_started(libsnbf* handle, Creation* made) {
  snbf_info now;
  if (int rc = libsnbf_get_info(handle, static_cast<uint32_t>(made->node.snap_minor), &now);
      rc != 0) {
    return rc;
  }
  if (!now.snap_valid) return -ENODATA;
  if (int rc = snbf::lib::mark_files(&made->record, false); rc != 0) return rc;
  return libsnbf_snap_record_write(made->dir.c_str(), &made->record);
}

int create_locked(libsnbf* handle, libsnbf_snap_request* request) {
  Creation made;
  if (int rc = plan_creation(handle, *request, &made); rc != 0) return rc;
  if (int rc = libsnbf_snap_record_write(made.dir.c_str(), &made.record); rc != 0) return rc;
  snbf::lib::fill_snap_node(made.record, request->filter_minor, &made.node);
  if (int rc = snbf::lib::add_snap_node_locked(handle, &made.node); rc != 0) {
    snbf::lib::remove_snap_record(made.dir, made.record.name);
    return rc;
  }
  const auto began = std::chrono::steady_clock::now();
  int rc = snbf::lib::start_node_locked(handle, static_cast<uint32_t>(made.node.snap_minor));
  const auto took = std::chrono::steady_clock::now() - began;
  if (rc == 0) rc = see_started(handle, &made);
  if (rc != 0) {
    // The record stays if the node does: there is still something to take away.
    if (snbf::lib::del_node_locked(handle, static_cast<uint32_t>(made.node.snap_minor)) == 0) {
      snbf::lib::remove_snap_record(made.dir, made.record.name);
    }
    return rc;
  }
  request->minor_used = static_cast<uint32_t>(made.node.snap_minor);
  request->chunk_size_used = made.node.chunk_size;
  request->start_us =
      static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
  return 0;
}

// Asked of the list first: the driver has an error line for a minor that it does not know.
bool is_node(libsnbf* handle, uint32_t minor, const char* uuid) {
  snbf_device_list list;
  snbf_info now;
  if (libsnbf_get_device_list(handle, SNBF_DEV_SNAP, &list) != 0) return false;
  uint32_t* const end = list.minors + list.count;
  if (std::find(list.minors, end, minor) == end) return false;
  return libsnbf_get_info(handle, minor, &now) == 0 && std::strcmp(now.uuid, uuid) == 0;
}

// The oldest snap that is started, where its deletion was put off. The driver deletes it when the last older one
// goes; but if somebody had it open in that moment it stays, and holds up the deletion of every later one.
std::optional<uint32_t> left_over(libsnbf* handle, uint32_t filter_minor) {
  std::vector<snbf_info> snaps;
  snbf_info filter;
  if (libsnbf_get_info(handle, filter_minor, &filter) != 0) return std::nullopt;
  if (snbf::lib::snap_infos(handle, filter, &snaps) != 0) return std::nullopt;
  for (const snbf_info& snap : snaps) {
    if (!snap.started) continue;
    if (!snap.del_pending || snap.use_cnt > 0) return std::nullopt;
    return snap.minor;
  }
  return std::nullopt;
}

void delete_left_over(libsnbf* handle, uint32_t filter_minor) {
  while (const auto minor = left_over(handle, filter_minor)) {
    if (snbf::lib::del_node_locked(handle, *minor) != 0) return;
  }
}

// Records of deletions that the driver had put off and has carried out since.
void sweep(libsnbf* handle, const snbf_info& filter) {
  std::vector<snbf_info> snaps;
  std::vector<libsnbf_snap_record> records;
  snbf_info now;
  if (libsnbf_get_info(handle, filter.minor, &now) != 0) return;
  if (snbf::lib::snap_infos(handle, now, &snaps) != 0) return;
  if (snbf::lib::snap_records(bmp_dir_of(filter), filter.uuid, &records) != 0) return;
  for (const auto& record : records) {
    const bool there = std::any_of(snaps.begin(), snaps.end(), [&](const snbf_info& snap) {
      return std::strcmp(snap.uuid, record.uuid) == 0;
    });
    // One that was stopped with its node is in its files until it is resumed or discarded.
    if (!record.deleting || there || record.stopped_clean) continue;
    ::unlink(record.cow_data_fname);
    ::unlink(record.cow_bmp_fname);
    snbf::lib::remove_snap_record(bmp_dir_of(filter), record.name);
  }
}

// Parts of an older snap's image may lie in a newer one's files: without those it is nothing.
int distrust_older(const snbf_info& filter, const libsnbf_snap_record& gone) {
  const std::string dir = bmp_dir_of(filter);
  std::vector<libsnbf_snap_record> records;
  if (int rc = snbf::lib::snap_records(dir, filter.uuid, &records); rc != 0) return rc;
  for (auto& record : records) {
    if (record.sequence >= gone.sequence || !record.stopped_clean) continue;
    record.stopped_clean = 0;
    if (int rc = libsnbf_snap_record_write(dir.c_str(), &record); rc != 0) return rc;
  }
  return 0;
}

int delete_locked(libsnbf* handle, uint32_t minor, const char* uuid, int* postponed) {
  snbf_info snap;
  snbf_info filter;
  *postponed = 0;
  if (int rc = libsnbf_get_info(handle, minor, &snap); rc != 0) return rc;
  if (snap.dev_type != SNBF_DEV_SNAP) return -EINVAL;
  // Minors are given out again at once: by now this one may be another's.
  if (uuid != nullptr && std::strcmp(snap.uuid, uuid) != 0) return -ENOENT;
  if (int rc = snbf::lib::filter_of(handle, minor, &filter); rc != 0) return rc;
  const std::string dir = bmp_dir_of(filter);
  libsnbf_snap_record record;
  const int read = libsnbf_snap_record_read(dir.c_str(), snap.name, &record);
  if (snbf::lib::is_unread(read)) return read;
  const bool known = read == 0 && std::strcmp(record.uuid, snap.uuid) == 0;
  if (known) {
    libsnbf_snap_record going = record;
    going.deleting = 1;
    going.stopped_clean = 0;
    if (int rc = libsnbf_snap_record_write(dir.c_str(), &going); rc != 0) return rc;
    if (int rc = distrust_older(filter, record); rc != 0) return rc;
  }
  if (int rc = snbf::lib::del_node_locked(handle, minor); rc != 0) {
    record.stopped_clean = 0;
    if (known) libsnbf_snap_record_write(dir.c_str(), &record);
    return rc;
  }
  delete_left_over(handle, filter.minor);
  *postponed = is_node(handle, minor, snap.uuid);
  if (known && !*postponed) snbf::lib::remove_snap_record(dir, snap.name);
  sweep(handle, filter);
  return 0;
}

int discard_locked(libsnbf* handle, uint32_t filter_minor, const char* name) {
  snbf_info filter;
  std::vector<snbf_info> snaps;
  libsnbf_snap_record record;
  if (int rc = find_filter(handle, filter_minor, &filter); rc != 0) return rc;
  if (int rc = libsnbf_snap_record_read(bmp_dir_of(filter).c_str(), name, &record); rc != 0) {
    return rc;
  }
  if (int rc = snbf::lib::snap_infos(handle, filter, &snaps); rc != 0) return rc;
  for (const snbf_info& snap : snaps) {
    if (std::strcmp(snap.uuid, record.uuid) == 0) return -EBUSY;
  }
  if (int rc = distrust_older(filter, record); rc != 0) return rc;
  for (const char* path : {record.cow_data_fname, record.cow_bmp_fname}) {
    if (::unlink(path) < 0 && errno != ENOENT) return -errno;
  }
  return snbf::lib::remove_snap_record(bmp_dir_of(filter), name);
}

}  // namespace

extern "C" {

uint32_t libsnbf_chunk_size_on(uint32_t chunk_size, uint64_t dev_size) {
  while (chunk_size != 0 && chunk_size < (1u << 31) && dev_size > (uint64_t{chunk_size} << 30)) {
    chunk_size *= 2;
  }
  return chunk_size;
}

int libsnbf_snap_create(libsnbf* handle, libsnbf_snap_request* request) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : create_locked(handle, request);
  });
}

int libsnbf_snap_delete(libsnbf* handle, uint32_t minor, const char* uuid, int* postponed) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : delete_locked(handle, minor, uuid, postponed);
  });
}

int libsnbf_snap_discard(libsnbf* handle, uint32_t filter_minor, const char* name) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    return lock.error() ? lock.error() : discard_locked(handle, filter_minor, name);
  });
}

}  // extern "C"
