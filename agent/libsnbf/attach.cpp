// SPDX-License-Identifier: GPL-2.0-only
// Attach: a filter node over a partition, with what is left of its last attachment.
//
// Order, so that a crash at any point errs towards all ones:
//   1. judge the record and both files of the last attachment; a record that belongs to another
//      partition is the end of it, or, if it is adopted, worth nothing
//   2. the record says "running, in this boot", and why the bitmaps are distrusted, if they are
//   3. the driver creates the node and loads the files
//   4. both bitmaps are set to all ones (distrusted) or saved as loaded; either writes both files
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>

#include "handle.h"
#include "identity.h"
#include "record_file.h"

namespace {

using snbf::lib::boot_id;
using snbf::lib::Fd;
using snbf::lib::hash_head;
using snbf::lib::HostLock;
using snbf::lib::Nodes;
using snbf::lib::put_text;

const char* why_of(libsnbf_verdict verdict) {
  switch (verdict) {
    case LIBSNBF_GOOD:
      return "";
    case LIBSNBF_MISSING:
      return LIBSNBF_WHY_MISSING;
    case LIBSNBF_CORRUPT:
      return LIBSNBF_WHY_CORRUPT;
    case LIBSNBF_DIRTY:
      return LIBSNBF_WHY_DIRTY;
    case LIBSNBF_WRONG_SIZE:
      return LIBSNBF_WHY_SIZE;
    case LIBSNBF_WRONG_CHECKSUM:
      return LIBSNBF_WHY_CHECKSUM;
  }
  return LIBSNBF_WHY_CORRUPT;
}

struct Partition {
  dev_t device = 0;
  uint64_t size_bytes = 0;
};

int look_at(const char* path, Partition* out) {
  struct stat about;
  if (::stat(path, &about) < 0) return -errno;
  if (!S_ISBLK(about.st_mode)) return -ENOTBLK;
  out->device = about.st_rdev;
  Fd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.ok()) return -errno;
  if (::ioctl(file.get(), BLKGETSIZE64, &out->size_bytes) < 0) return -errno;
  return 0;
}

std::string bmp_path(const std::string& dir, uint32_t minor, const char* suffix) {
  return dir + "/snbf" + std::to_string(minor) + suffix;
}

// Why what the last attachment left is not to be believed; empty if it is.
std::string judge(const libsnbf_attach_request& request, uint32_t minor, const libsnbf_state& state,
                  uint64_t size_bytes) {
  if (std::string(state.name) != request.name) return LIBSNBF_WHY_OTHER_NODE;
  const uint64_t extents = (size_bytes - 1) / request.extent_size + 1;
  const auto bmp_bytes = static_cast<uint32_t>((extents - 1) / 8 + 1);
  for (const char* suffix : {".incr", ".diff"}) {
    libsnbf_verdict verdict = LIBSNBF_CORRUPT;
    const std::string path = bmp_path(request.bmp_dir, minor, suffix);
    // One that cannot be read is as good as damaged: it is written anew, which may mend it, and its
    // partition comes up.
    if (libsnbf_judge_bmp_file(path.c_str(), bmp_bytes, &verdict) != 0) return LIBSNBF_WHY_CORRUPT;
    if (verdict != LIBSNBF_GOOD) return why_of(verdict);
  }
  // Nobody saw how it looked when it was let go (the module was unloaded, the machine went down),
  // so nobody can see whether something wrote to the partition since.
  if (!state.stopped_clean) return LIBSNBF_WHY_UNCLEAN;
  uint64_t head = 0;
  if (hash_head(request.partition, &head) != 0 || head != state.head_hash)
    return LIBSNBF_WHY_OUTSIDE;
  return "";
}

using Records = std::map<uint32_t, libsnbf_state>;  // by minor

// Those in the directory that are whole. One that cannot be read is an error: nobody knows whose it
// is, nor whether it says "clean".
int records_in(const char* bmp_dir, Records* out) {
  std::error_code failed;
  for (std::filesystem::directory_iterator at(bmp_dir, failed), end; !failed && at != end;
       at.increment(failed)) {
    uint32_t minor = 0;
    libsnbf_state state;
    if (at->path().extension() != ".state") continue;
    if (std::sscanf(at->path().stem().c_str(), "snbf%u", &minor) != 1) continue;
    const int rc = libsnbf_state_read(bmp_dir, minor, &state);
    if (snbf::lib::is_unread(rc)) return rc;
    if (rc == 0) out->emplace(minor, state);
  }
  return -failed.value();
}

// The minor that the name had last, of those that `may_be`. A partition that got another one has a
// record of each; only the last can have been stopped cleanly.
template <typename MayBe>
std::optional<uint32_t> last_minor(const Records& records, const char* name, MayBe may_be) {
  std::optional<uint32_t> last;
  for (const auto& [minor, state] : records) {
    if (std::string(state.name) != name || !may_be(minor, state)) continue;
    if (state.stopped_clean) return minor;
    if (!last) last = minor;
  }
  return last;
}

// The minor decides the names of the bitmap files, so a name gets its old one back, and never one
// whose files belong to another name.
std::optional<uint32_t> choose_minor(const libsnbf_attach_request& request, const Records& records,
                                     const Nodes& nodes, uint32_t minor_max) {
  const auto is_free = [&](uint32_t minor, const libsnbf_state&) {
    return minor < minor_max && !nodes.minors.contains(minor);
  };
  if (const auto own = last_minor(records, request.name, is_free)) return own;
  libsnbf_state state{};
  for (uint32_t minor = 0; minor < minor_max; ++minor) {
    if (!is_free(minor, state)) continue;
    if (libsnbf_state_read(request.bmp_dir, minor, &state) == -ENOENT) return minor;
  }
  return std::nullopt;
}

int check(libsnbf* handle, const libsnbf_attach_request& request, Partition* partition) {
  if (!libsnbf_name_is_safe(request.name)) return -EILSEQ;
  if (int rc = look_at(request.partition, partition); rc != 0) return rc;
  struct stat about;
  if (::stat(request.bmp_dir, &about) < 0) return -errno;
  if (!S_ISDIR(about.st_mode)) return -ENOTDIR;
  if (request.extent_size == 0 || partition->size_bytes == 0) return -EINVAL;
  return snbf::lib::check_store(handle, request.bmp_dir, partition->device);
}

// A record without a tie is of a device that nothing lasting was known of, or of an earlier version.
bool is_of_another(const libsnbf_state& state, const std::vector<std::string>& identities) {
  return state.device[0] &&
         std::find(identities.begin(), identities.end(), state.device) == identities.end();
}

int settle_bitmaps(libsnbf* handle, uint32_t minor, bool believed) {
  for (uint32_t type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) {
    const int rc = believed ? libsnbf_save_bmp(handle, minor, type)
                            : libsnbf_set_bmp(handle, minor, type, nullptr, 0);
    if (rc != 0) return rc;
    int unsaved = 0;
    if (int query = libsnbf_bmp_unsaved(handle, minor, type, &unsaved); query != 0) return query;
    if (unsaved) return -EIO;
  }
  return 0;
}

// What an attach has found out before it changes anything.
struct Attachment {
  Partition partition;
  std::vector<std::string> identities;
  uint32_t minor = 0;
  int32_t minor_before = -1;
  int known = 0;  // 0: `before` is the record of the last attachment, else why there is none
  libsnbf_state before{};
  libsnbf_state state{};        // the new record
  std::string why;              // the bitmaps are not believed
  Records records;              // of all nodes in the directory, as they were found
  std::vector<uint32_t> twins;  // of these, made unclean
};

// Under another name the partition has a record of its own. What happens to it from now on is not in
// that one's bitmaps.
int distrust_twins(const char* bmp_dir, Attachment* at) {
  for (const auto& [other, state] : at->records) {
    if (other == at->minor || !state.stopped_clean) continue;
    if (!state.device[0] || is_of_another(state, at->identities)) continue;
    libsnbf_state unclean = state;
    unclean.stopped_clean = 0;
    at->twins.push_back(other);
    if (int rc = libsnbf_state_write(bmp_dir, other, &unclean); rc != 0) return rc;
  }
  return 0;
}

// Nothing was attached, so nothing has happened to the partition. A record that somebody has changed
// since keeps what it says; of one that was started since, the clean stop is no longer true.
void trust_twins_again(const char* bmp_dir, const Attachment& at) {
  for (const uint32_t other : at.twins) {
    libsnbf_state now;
    if (libsnbf_state_read(bmp_dir, other, &now) != 0) continue;
    const libsnbf_state& found = at.records.at(other);
    if (now.epoch != found.epoch || std::strcmp(now.uuid, found.uuid) != 0) continue;
    now.stopped_clean = 1;
    libsnbf_state_write(bmp_dir, other, &now);
  }
}

int choose_place(libsnbf* handle, libsnbf_attach_request* request, Attachment* out) {
  Nodes nodes;
  if (int rc = snbf::lib::list_nodes(handle, &nodes); rc != 0) return rc;
  if (nodes.names.contains(request->name)) return -EEXIST;
  uint32_t minor_max = 0;
  if (int rc = libsnbf_minor_max(handle, &minor_max); rc != 0) return rc;
  if (request->minor >= 0 && static_cast<uint32_t>(request->minor) >= minor_max) return -ERANGE;
  const auto minor = request->minor >= 0 ? static_cast<uint32_t>(request->minor)
                                         : choose_minor(*request, out->records, nodes, minor_max);
  if (!minor) return -ENOSPC;
  if (snbf::lib::is_driver_name(request->name) &&
      request->name != "snbf" + std::to_string(*minor)) {
    return -EILSEQ;
  }
  if (nodes.minors.contains(*minor)) return -EINVAL;  // the driver's answer to a taken minor
  request->minor_used = out->minor = *minor;
  return 0;
}

// Whose the last record is, and what it and its files are worth.
int judge_last(const libsnbf_attach_request& request, Attachment* at) {
  const auto is_its = [at](uint32_t, const libsnbf_state& state) {
    return !is_of_another(state, at->identities);
  };
  const auto last = last_minor(at->records, request.name, is_its);
  if (last && *last != at->minor) at->minor_before = static_cast<int32_t>(*last);
  at->known = libsnbf_state_read(request.bmp_dir, at->minor, &at->before);
  if (at->known == 0 && is_of_another(at->before, at->identities)) {
    if (!request.adopt) return -EMEDIUMTYPE;
    at->why = LIBSNBF_WHY_ADOPTED;
  } else if (at->known == -ENOENT) {
    at->why = at->minor_before < 0 ? LIBSNBF_WHY_MISSING : LIBSNBF_WHY_OTHER_MINOR;
  } else if (at->known != 0) {
    if (snbf::lib::is_unread(at->known)) return at->known;
    at->why = LIBSNBF_WHY_CORRUPT;
  } else {
    at->why = judge(request, at->minor, at->before, at->partition.size_bytes);
  }
  const bool is_others = at->why == LIBSNBF_WHY_OTHER_NODE || at->why == LIBSNBF_WHY_ADOPTED;
  if (at->known == 0 && !is_others) at->state = at->before;
  // Untouched since its clean stop: the epoch stays until the node is started.
  if (!at->why.empty()) at->state.epoch = snbf::lib::new_epoch();
  if (at->state.distrust[0]) at->why = at->state.distrust;  // no full backup since
  return 0;
}

void fill_record(const libsnbf& handle, const libsnbf_attach_request& request, Attachment* at) {
  libsnbf_state& state = at->state;
  const std::string known_by = at->identities.empty() ? "" : at->identities.front();
  put_text(state.name, request.name);
  put_text(state.hdd_name, request.partition);
  put_text(state.boot_id, boot_id(handle));
  put_text(state.distrust, at->why);
  std::memset(state.device, 0, sizeof state.device);
  put_text(state.device, known_by);
  state.stopped_clean = 0;
}

int create_node(libsnbf* handle, const libsnbf_attach_request& request, Attachment* at) {
  snbf_filter_node_cmd record{};
  if (!put_text(record.hdd_name, request.partition) || !put_text(record.bmp_dir, request.bmp_dir)) {
    return -ENAMETOOLONG;
  }
  put_text(record.name, request.name);
  put_text(record.uuid, at->state.uuid);
  record.minor = static_cast<int32_t>(at->minor);
  record.extent_size = request.extent_size;
  bool recorded = false;
  int rc = distrust_twins(request.bmp_dir, at);
  if (rc == 0) {
    recorded = true;
    rc = libsnbf_state_write(request.bmp_dir, at->minor, &at->state);
  }
  if (rc == 0) rc = libsnbf_add_filter_node(handle, &record);
  put_text(at->state.uuid, record.uuid);
  if (rc == 0) return 0;
  // Nothing was attached: what was known still holds.
  trust_twins_again(request.bmp_dir, *at);
  if (recorded && at->known == 0) {
    libsnbf_state_write(request.bmp_dir, at->minor, &at->before);
  } else if (recorded) {
    ::unlink(bmp_path(request.bmp_dir, at->minor, ".state").c_str());
  }
  return rc;
}

int attach_locked(libsnbf* handle, libsnbf_attach_request* request) {
  Attachment at;
  if (int rc = check(handle, *request, &at.partition); rc != 0) return rc;
  if (int rc = records_in(request->bmp_dir, &at.records); rc != 0) return rc;
  if (int rc = choose_place(handle, request, &at); rc != 0) return rc;
  at.identities = snbf::lib::identities_of(*handle, at.partition.device);
  if (int rc = judge_last(*request, &at); rc != 0) return rc;
  fill_record(*handle, *request, &at);
  if (int rc = create_node(handle, *request, &at); rc != 0) return rc;
  int rc = settle_bitmaps(handle, at.minor, at.why.empty());
  if (rc == 0) rc = libsnbf_state_write(request->bmp_dir, at.minor, &at.state);
  if (rc != 0) {
    snbf::lib::del_node_locked(handle, at.minor);
    return rc;
  }
  put_text(request->uuid, at.state.uuid);
  put_text(request->distrust, at.why);
  request->minor_before = at.minor_before;
  return 0;
}

}  // namespace

extern "C" {

int libsnbf_attach(libsnbf* handle, libsnbf_attach_request* request) {
  return snbf::lib::at_border([&] {
    HostLock lock(*handle);
    if (lock.error()) return lock.error();
    return attach_locked(handle, request);
  });
}

}  // extern "C"
