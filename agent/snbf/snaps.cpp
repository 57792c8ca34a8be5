// SPDX-License-Identifier: GPL-2.0-only
#include "snaps.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "failure.h"
#include "files.h"
#include "reasons.h"
#include "sizes.h"

namespace snbf {

namespace {

constexpr uint64_t kBlockBytes = 512;  // of st_blocks
constexpr uint64_t kRoomMin = 64 << 20;
constexpr uint64_t kRoomShare = 10;  // of the partition
constexpr int kNameTries = 100;
constexpr auto kLookersGoWithin = std::chrono::seconds(2);
constexpr auto kLookAgain = std::chrono::milliseconds(50);

std::string why_not_there(const Driver& driver, const snbf_info& node, const std::string& dir,
                          uint64_t needed, CowPlace* place) {
  switch (-libsnbf_cow_dir_check(driver.get(), dir.c_str(), node.minor)) {
    case 0:
      break;
    case ELOOP:
      return dir + " lies on the partition itself";
    case EXDEV:
      return dir + " has no local disk below it";
    default:
      return dir + " cannot be used";
  }
  *place = {dir, free_bytes_in(dir)};
  if (place->free_bytes >= needed) return "";
  return fmt::format("{} has only {} free, and {} are wanted", dir, show_size(place->free_bytes),
                     show_size(needed));
}

}  // namespace

std::string Snap::state() const {
  if (!started()) return why.empty() ? "resumable" : "dead";
  if (node->stop_pending) return "going";
  return node->snap_valid ? "started" : "lost";
}

bool Snap::readable() const { return state() == "started"; }

uint64_t Snap::cow_bytes() const {
  struct stat about;
  if (::stat(data_file().c_str(), &about) < 0) return 0;
  return static_cast<uint64_t>(about.st_blocks) * kBlockBytes;
}

std::vector<Snap> snaps_of(const Driver& driver, const snbf_info& filter) {
  std::vector<Snap> snaps;
  struct Context {
    const snbf_info& filter;
    std::vector<Snap>& snaps;
  } context{filter, snaps};
  const auto visit = [](void* to, const libsnbf_snap_record* record, const char* why) {
    auto* found = static_cast<Context*>(to);
    found->snaps.push_back({found->filter, std::nullopt, *record, why});
  };
  must(libsnbf_snap_each(driver.get(), filter.minor, visit, &context),
       fmt::format("listing the snaps of {}", filter.name));
  const snbf_info now = driver.info(filter.minor);
  for (uint32_t i = 0; i < now.snap_cnt; ++i) {
    snbf_info node;
    // A snap may go between the two questions.
    if (libsnbf_get_info(driver.get(), now.snap_minors[i], &node) != 0) continue;
    const auto known = std::find_if(snaps.begin(), snaps.end(), [&](const Snap& snap) {
      return std::strcmp(snap.record.uuid, node.uuid) == 0;
    });
    if (known == snaps.end()) {
      snaps.push_back({filter, node, {}, LIBSNBF_SNAP_UNCLEAN});
    } else {
      known->node = node;
    }
  }
  return snaps;
}

Snap find_snap(const Driver& driver, const std::string& text) {
  const dev_t device = text.find('/') == std::string::npos ? 0 : device_of(text);
  std::vector<Snap> snaps;
  for (const snbf_info& filter : driver.filters()) {
    for (Snap& snap : snaps_of(driver, filter)) snaps.push_back(std::move(snap));
  }
  for (const Snap& snap : snaps) {
    if (text == snap.name()) return snap;
  }
  for (const Snap& snap : snaps) {
    if (!snap.node) continue;
    const std::string minor = std::to_string(snap.node->minor);
    if (text == minor || text == "snbf" + minor) return snap;
    if (device != 0 && device == device_of(snap_path(*snap.node))) return snap;
  }
  throw Failure(kFailed, fmt::format("no snap is called {}", text),
                "`snbf snap list` shows the snaps; `snbf snap create` makes one");
}

std::string snap_path(const snbf_info& snap) { return fmt::format("/dev/snbf/{}", snap.name); }

Json snap_json(const Snap& snap) {
  return {{"name", snap.name()},
          {"node", snap.filter.name},
          {"state", snap.state()},
          {"why_dead", snap.state() == "dead" ? snap.why : ""},
          {"minor", snap.node ? Json(snap.node->minor) : Json(nullptr)},
          {"device", snap.node ? Json(snap_path(*snap.node)) : Json(nullptr)},
          {"uuid", snap.node ? snap.node->uuid : snap.record.uuid},
          {"chunk_size", snap.node ? snap.node->chunk_size : snap.record.chunk_size},
          {"opens", snap.node ? snap.node->use_cnt : 0},
          {"created", snap.record.created ? Json(show_time(snap.record.created)) : Json(nullptr)},
          {"temporary", snap.record.temporary != 0},
          {"cow_data_file", snap.data_file()},
          {"cow_data_bytes", snap.cow_bytes()}};
}

std::string describe_state(const Snap& snap) {
  const std::string state = snap.state();
  if (state == "started") return "started";
  if (state == "going") return "cannot be read any more; it goes with the last older snap";
  if (state == "lost") return "lost: a copy failed, the kernel log says why";
  if (state == "resumable") return "stopped, and can be resumed";
  return "dead: " + reason_text(snap.why);
}

uint64_t free_bytes_in(const std::string& dir) {
  struct statvfs room {};
  if (::statvfs(dir.c_str(), &room) < 0) return 0;
  return uint64_t{room.f_bavail} * room.f_frsize;
}

uint64_t cow_room_for(uint64_t dev_size) { return std::max(kRoomMin, dev_size / kRoomShare); }

std::optional<uint64_t> seconds_until_full(uint64_t free_bytes, uint64_t copied_bytes,
                                           uint64_t age_seconds, uint64_t dev_size) {
  if (copied_bytes == 0 || age_seconds == 0) return std::nullopt;
  if (copied_bytes >= dev_size || free_bytes >= dev_size - copied_bytes) return std::nullopt;
  return static_cast<uint64_t>(static_cast<double>(free_bytes) / static_cast<double>(copied_bytes) *
                               static_cast<double>(age_seconds));
}

std::optional<uint64_t> seconds_until_full(const Snap& snap) {
  if (!snap.readable() || snap.record.created == 0) return std::nullopt;
  const int64_t age = ::time(nullptr) - snap.record.created;
  if (age <= 0) return std::nullopt;
  return seconds_until_full(free_bytes_in(folder_of(snap.data_file())), snap.cow_bytes(),
                            static_cast<uint64_t>(age), snap.filter.dev_size);
}

void check_cow_dir(const Driver& driver, const snbf_info& node, const std::string& dir) {
  NewSnap wanted;
  wanted.cow_dir = dir;
  const int rc = libsnbf_cow_dir_check(driver.get(), dir.c_str(), node.minor);
  if (rc != 0) throw snap_refusal(rc, node, wanted);
}

std::optional<CowPlace> find_cow_place(const Driver& driver, const snbf_info& node,
                                       const std::vector<std::string>& dirs, std::string* why) {
  const uint64_t needed = cow_room_for(node.dev_size);
  why->clear();
  for (const std::string& dir : dirs) {
    CowPlace place;
    const std::string refused = why_not_there(driver, node, dir, needed, &place);
    if (refused.empty()) return place;
    *why += (why->empty() ? "" : "; ") + refused;
  }
  return std::nullopt;
}

Failure snap_refusal(int rc, const snbf_info& filter, const NewSnap& wanted) {
  const std::string doing = fmt::format("making a snap of {}", filter.name);
  switch (-rc) {
    case EEXIST:
      return {kFailed, fmt::format("{}: the name {} is taken", doing, wanted.name),
              "choose another with --name, or delete that snap", rc};
    case ENOTEMPTY:
      return {kUnsafe,
              fmt::format("{}: {} holds COW files of that name already", doing, wanted.cow_dir),
              "choose another --name; --yes overwrites them, and what image they hold", rc};
    case ETXTBSY:
      return {kUnsafe,
              fmt::format("{}: the COW files of that name in {} belong to another snap", doing,
                          wanted.cow_dir),
              "choose another --name or --cow; `snbf snap list` shows the snaps", rc};
    case ENODATA:
      return {
          kSnapLost,
          fmt::format("{}: it was lost in the moment of its start: its COW files in {} could not "
                      "be written ({} free)",
                      doing, wanted.cow_dir, show_size(free_bytes_in(wanted.cow_dir))),
          "make room there, or name another directory with --cow; the kernel log says more", rc};
    case EDOM:
      return {kMisused, fmt::format("{}: its other snaps have another chunk size", doing),
              "leave --chunk out: all snaps of a node have the same", rc};
    case EXDEV:
      return {
          kUnsafe,
          fmt::format("{}: the file system of {} has no disk of its own", doing, wanted.cow_dir),
          "COW files need a local disk: not tmpfs, overlay, btrfs or a network's", rc};
    case ELOOP:
      return {kUnsafe,
              fmt::format("{}: {} lies on the partition itself, or on what is kept on it", doing,
                          wanted.cow_dir),
              "choose a directory on another device with --cow", rc};
    case EILSEQ:
      return {
          kMisused, fmt::format("{} is no name for a snap", wanted.name),
          "use letters, digits, '_', '-' and '.', not a '.' first, and no name of the driver's own",
          rc};
  }
  return failure_of(rc, fmt::format("{} with its COW files in {}", doing, wanted.cow_dir));
}

MadeSnap make_snap(const Driver& driver, const snbf_info& filter, const NewSnap& wanted) {
  libsnbf_snap_request request{};
  std::string name = wanted.name;
  request.filter_minor = filter.minor;
  request.cow_dir = wanted.cow_dir.c_str();
  request.chunk_size = wanted.chunk_size;
  request.overwrite = wanted.overwrite;
  int rc = -EEXIST;
  for (int tries = 1; rc == -EEXIST && tries <= kNameTries; ++tries) {
    if (tries > 1 && wanted.name_is_fixed) break;
    if (tries > 1) name = fmt::format("{}.{}", wanted.name, tries);
    request.name = name.c_str();
    rc = libsnbf_snap_create(driver.get(), &request);
  }
  if (rc != 0) throw snap_refusal(rc, filter, wanted);
  return {driver.info(request.minor_used), request.start_us};
}

int delete_snap(const Driver& driver, const snbf_info& snap, int* postponed) {
  const auto give_up = std::chrono::steady_clock::now() + kLookersGoWithin;
  int rc;
  // A new block device is opened by programs that look what is on it; a mount stays.
  while ((rc = libsnbf_snap_delete(driver.get(), snap.minor, snap.uuid, postponed)) == -EBUSY &&
         std::chrono::steady_clock::now() < give_up &&
         mounts_of(device_of(snap_path(snap))).empty()) {
    std::this_thread::sleep_for(kLookAgain);
  }
  return rc;
}

}  // namespace snbf
