// SPDX-License-Identifier: GPL-2.0-only
// What outlives a snap node: its record, and how the record follows the filter node's stop.
#define XXH_INLINE_ALL
#include "snap_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "record_file.h"

namespace {

namespace fs = std::filesystem;
using snbf::lib::Fd;
using snbf::lib::hex64;
using snbf::lib::put_text;

constexpr const char* kHeading = "snbf-snap 1";
constexpr const char* kSuffix = ".snap";

std::string record_path(const std::string& bmp_dir, const std::string& name) {
  return bmp_dir + "/" + name + kSuffix;
}

// "DEV INO NANOSECONDS"
std::string mark_text(const libsnbf_file_mark& mark) {
  return std::to_string(mark.dev) + " " + std::to_string(mark.ino) + " " +
         std::to_string(mark.changed_ns);
}

bool take_mark(const std::string& text, libsnbf_file_mark* out) {
  std::istringstream words(text);
  return static_cast<bool>(words >> out->dev >> out->ino >> out->changed_ns);
}

constexpr int64_t kNsPerSecond = 1000000000;

int mark_of(const char* path, libsnbf_file_mark* out) {
  struct stat about;
  if (::stat(path, &about) < 0) return -errno;
  *out = {about.st_dev, about.st_ino, about.st_mtim.tv_sec * kNsPerSecond + about.st_mtim.tv_nsec};
  return 0;
}

bool take(libsnbf_snap_record& record, const std::string& key, const std::string& value) {
  const auto number = [&value](int base) { return std::strtoull(value.c_str(), nullptr, base); };
  if (key == "name") return put_text(record.name, value);
  if (key == "uuid") return put_text(record.uuid, value);
  if (key == "node") return put_text(record.node_uuid, value);
  if (key == "cow-bmp") return put_text(record.cow_bmp_fname, value);
  if (key == "cow-data") return put_text(record.cow_data_fname, value);
  if (key == "boot") return put_text(record.boot_id, value);
  if (key == "size") record.dev_size = number(10);
  if (key == "chunk") record.chunk_size = static_cast<uint32_t>(number(10));
  if (key == "sequence") record.sequence = static_cast<uint32_t>(number(10));
  if (key == "created") record.created = static_cast<int64_t>(number(10));
  if (key == "temporary") record.temporary = value == "1";
  if (key == "deleting") record.deleting = value == "1";
  if (key == "clean") record.stopped_clean = value == "1";
  if (key == "stop-pending") record.stop_pending = value == "1";
  if (key == "del-pending") record.del_pending = value == "1";
  if (key == "epoch") record.epoch = number(16);
  if (key == "bitmaps") record.bitmaps_hash = number(16);
  if (key == "cow-bmp-mark") return take_mark(value, &record.cow_bmp_mark);
  if (key == "cow-data-mark") return take_mark(value, &record.cow_data_mark);
  return true;  // a key of a later version is passed over
}

int sync_file(const char* path) {
  Fd file(::open(path, O_RDONLY | O_CLOEXEC));
  return !file.ok() || ::fsync(file.get()) < 0 ? -errno : 0;
}

}  // namespace

namespace snbf::lib {

int snap_records(const std::string& bmp_dir, std::vector<libsnbf_snap_record>* out, bool* damaged) {
  std::error_code failed;
  out->clear();
  if (damaged) *damaged = false;
  for (fs::directory_iterator at(bmp_dir, failed), end; !failed && at != end;
       at.increment(failed)) {
    libsnbf_snap_record record;
    if (at->path().extension() != kSuffix) continue;
    const std::string name = at->path().stem();
    const int rc = libsnbf_snap_record_read(bmp_dir.c_str(), name.c_str(), &record);
    if (is_unread(rc)) return rc;
    if (rc == -EBADMSG && damaged) *damaged = true;
    if (rc == 0 && name == record.name) out->push_back(record);
  }
  const bool gone = failed.value() == ENOENT || failed.value() == ENOTDIR;
  return gone ? 0 : -failed.value();
}

int snap_records(const std::string& bmp_dir, const char* node_uuid,
                 std::vector<libsnbf_snap_record>* out, bool* damaged) {
  if (int rc = snap_records(bmp_dir, out, damaged); rc != 0) return rc;
  std::erase_if(*out, [node_uuid](const libsnbf_snap_record& record) {
    return std::strcmp(record.node_uuid, node_uuid) != 0;
  });
  std::sort(out->begin(), out->end(),
            [](const auto& one, const auto& other) { return one.sequence < other.sequence; });
  return 0;
}

std::optional<uint32_t> choose_snap_minor(const std::string& bmp_dir, const Nodes& nodes,
                                          uint32_t minor_max) {
  for (uint32_t minor = minor_max; minor-- > 0;) {
    libsnbf_state state;
    if (nodes.minors.contains(minor)) continue;
    if (libsnbf_state_read(bmp_dir.c_str(), minor, &state) == -ENOENT) return minor;
  }
  return std::nullopt;
}

void fill_snap_node(const libsnbf_snap_record& record, uint32_t filter_minor,
                    snbf_snap_node_cmd* node) {
  node->snbf_minor = filter_minor;
  put_text(node->cow_bmp_fname, record.cow_bmp_fname);
  put_text(node->cow_data_fname, record.cow_data_fname);
  put_text(node->uuid, record.uuid);
  put_text(node->name, record.name);
}

int remove_snap_record(const std::string& bmp_dir, const std::string& name) {
  if (::unlink(record_path(bmp_dir, name).c_str()) < 0 && errno != ENOENT) return -errno;
  return sync_directory(bmp_dir);
}

int snap_infos(libsnbf* handle, const snbf_info& filter, std::vector<snbf_info>* out) {
  for (uint32_t i = 0; i < filter.snap_cnt; ++i) {
    snbf_info snap;
    if (int rc = libsnbf_get_info(handle, filter.snap_minors[i], &snap); rc != 0) return rc;
    out->push_back(snap);
  }
  return 0;
}

std::optional<FileId> file_id(const char* path) {
  struct stat about;
  if (::stat(path, &about) < 0) return std::nullopt;
  return FileId{about.st_dev, about.st_ino};
}

int files_of_snaps(libsnbf* handle, const std::string& extra_dir, std::set<FileId>* out) {
  const auto add = [out](const char* path) {
    if (const auto id = file_id(path)) out->insert(*id);
  };
  snbf_device_list list;
  snbf_info info;
  if (int rc = libsnbf_get_device_list(handle, SNBF_DEV_SNAP, &list); rc != 0) return rc;
  for (uint32_t i = 0; i < list.count; ++i) {
    if (libsnbf_get_info(handle, list.minors[i], &info) != 0) continue;
    add(info.cow_data_fname);
    add(info.cow_bmp_fname);
  }
  std::set<std::string> dirs{extra_dir};
  if (int rc = libsnbf_get_device_list(handle, SNBF_DEV_FILTER, &list); rc != 0) return rc;
  for (uint32_t i = 0; i < list.count; ++i) {
    if (libsnbf_get_info(handle, list.minors[i], &info) == 0) dirs.insert(bmp_dir_of(info));
  }
  for (const std::string& dir : dirs) {
    std::vector<libsnbf_snap_record> records;
    if (int rc = snap_records(dir, &records); rc != 0) return rc;
    for (const libsnbf_snap_record& record : records) {
      // By path, and by what was seen there: the path may lead elsewhere by now.
      add(record.cow_data_fname);
      add(record.cow_bmp_fname);
      if (boot_id(*handle) != record.boot_id) continue;
      for (const auto& mark : {record.cow_data_mark, record.cow_bmp_mark}) {
        if (mark.dev != 0) out->insert({mark.dev, mark.ino});
      }
    }
  }
  return 0;
}

int mark_files(libsnbf_snap_record* record, bool at_rest) {
  if (int rc = mark_of(record->cow_bmp_fname, &record->cow_bmp_mark); rc != 0) return rc;
  if (int rc = mark_of(record->cow_data_fname, &record->cow_data_mark); rc != 0) return rc;
  if (!at_rest) record->cow_bmp_mark.changed_ns = record->cow_data_mark.changed_ns = 0;
  return 0;
}

bool fits_mark(const char* path, const libsnbf_file_mark& mark, bool same_boot) {
  libsnbf_file_mark now;
  if (mark_of(path, &now) != 0) return false;
  return (mark.ino == 0 || now.ino == mark.ino) &&
         (mark.dev == 0 || !same_boot || now.dev == mark.dev) &&
         (mark.changed_ns == 0 || now.changed_ns == mark.changed_ns);
}

int hash_bitmaps(libsnbf* handle, const snbf_info& filter, uint64_t* out) {
  std::vector<unsigned char> bits(size_t{filter.incr_bmp_size} + filter.diff_bmp_size);
  unsigned char* diff = bits.data() + filter.incr_bmp_size;
  if (int rc =
          libsnbf_get_bmp(handle, filter.minor, SNBF_BMP_INCR, bits.data(), filter.incr_bmp_size);
      rc != 0) {
    return rc;
  }
  if (int rc = libsnbf_get_bmp(handle, filter.minor, SNBF_BMP_DIFF, diff, filter.diff_bmp_size);
      rc != 0) {
    return rc;
  }
  *out = XXH3_64bits(bits.data(), bits.size());
  return 0;
}

int snaps_before_stop(libsnbf* handle, const snbf_info& filter, SnapsBefore* out) {
  std::vector<snbf_info> snaps;
  if (int rc = snap_infos(handle, filter, &snaps); rc != 0) return rc;
  for (const snbf_info& snap : snaps) {
    if (snap.started) out->started.push_back(snap);
  }
  return 0;
}

// The filter node is stopped and its own record says so: nothing has passed it since its snaps
// stopped.
int record_snaps_stopped(libsnbf* handle, const snbf_info& filter, const SnapsBefore& before) {
  const std::string dir = bmp_dir_of(filter);
  libsnbf_state state;
  if (before.started.empty() || libsnbf_state_read(dir.c_str(), filter.minor, &state) != 0)
    return 0;
  uint64_t bitmaps_hash = 0;
  if (int rc = hash_bitmaps(handle, filter, &bitmaps_hash); rc != 0) return rc;
  for (const snbf_info& snap : before.started) {
    libsnbf_snap_record record;
    snbf_info now;
    if (libsnbf_snap_record_read(dir.c_str(), snap.name, &record) != 0 ||
        std::strcmp(record.uuid, snap.uuid) != 0) {
      continue;  // made without us
    }
    // It may have been lost on the way: what counts is how the stop left it.
    if (libsnbf_get_info(handle, snap.minor, &now) != 0 || now.started || !now.snap_valid) continue;
    if (sync_file(snap.cow_data_fname) != 0 || sync_file(snap.cow_bmp_fname) != 0) continue;
    if (mark_files(&record, true) != 0) continue;
    record.stopped_clean = 1;
    record.stop_pending = snap.stop_pending != 0;
    record.del_pending = snap.del_pending != 0;
    record.epoch = state.epoch;
    record.bitmaps_hash = bitmaps_hash;
    put_text(record.boot_id, boot_id(*handle));
    if (int rc = libsnbf_snap_record_write(dir.c_str(), &record); rc != 0) return rc;
  }
  return 0;
}

void forget_snaps(const snbf_info& filter, const std::vector<snbf_info>& snaps) {
  for (const snbf_info& snap : snaps) remove_snap_record(bmp_dir_of(filter), snap.name);
}

}  // namespace snbf::lib

extern "C" {

int libsnbf_snap_record_read(const char* bmp_dir, const char* name, libsnbf_snap_record* out) {
  return snbf::lib::at_border([&] {
    *out = libsnbf_snap_record{};
    return snbf::lib::read_record(
        record_path(bmp_dir, name), kHeading,
        [out](const std::string& key, const std::string& value) { return take(*out, key, value); });
  });
}

int libsnbf_snap_record_write(const char* bmp_dir, const libsnbf_snap_record* record) {
  return snbf::lib::at_border([&] {
    const auto flag = [](int value) { return std::string(value ? "1" : "0"); };
    return snbf::lib::write_record(record_path(bmp_dir, record->name), kHeading,
                                   {{"name", record->name},
                                    {"uuid", record->uuid},
                                    {"node", record->node_uuid},
                                    {"cow-bmp", record->cow_bmp_fname},
                                    {"cow-data", record->cow_data_fname},
                                    {"boot", record->boot_id},
                                    {"size", std::to_string(record->dev_size)},
                                    {"chunk", std::to_string(record->chunk_size)},
                                    {"sequence", std::to_string(record->sequence)},
                                    {"created", std::to_string(record->created)},
                                    {"temporary", flag(record->temporary)},
                                    {"deleting", flag(record->deleting)},
                                    {"clean", flag(record->stopped_clean)},
                                    {"stop-pending", flag(record->stop_pending)},
                                    {"del-pending", flag(record->del_pending)},
                                    {"epoch", hex64(record->epoch)},
                                    {"bitmaps", hex64(record->bitmaps_hash)},
                                    {"cow-bmp-mark", mark_text(record->cow_bmp_mark)},
                                    {"cow-data-mark", mark_text(record->cow_data_mark)}});
  });
}

}  // extern "C"
