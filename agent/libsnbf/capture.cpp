// SPDX-License-Identifier: GPL-2.0-only
// A capture, from the node's lock to the state record that counts from the new point.
//
// The order that loses nothing: the bits are taken and cleared before the snap is started, and read
// again behind it. A write in between is in the snap and still marked: it is copied now, and once
// more with the next point. At every moment from "begins" on, the journal knows enough to make the
// bitmap at least what it would be without us.
#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "capture_state.h"
#include "last_capture.h"

namespace snbf::lib {
namespace {

constexpr size_t kNodeNameShown = 64;
constexpr int kNameTries = 100;
constexpr auto kDrainStep = std::chrono::milliseconds(10);
constexpr int kDrainStepsMax = 200;
constexpr int kDrainLooks = 2;  // in a row

void merge(Bits* into, const Bits& other) {
  for (size_t i = 0; i < into->size(); ++i) (*into)[i] |= other[i];
}

uint64_t count(const Bits& bits) {
  uint64_t set = 0;
  for (uint8_t byte : bits) set += static_cast<uint64_t>(std::popcount(byte));
  return set;
}

dev_t block_device(const std::string& path) {
  struct stat about;
  return ::stat(path.c_str(), &about) == 0 && S_ISBLK(about.st_mode) ? about.st_rdev : 0;
}

// What the file systems on the node hold back goes to it.
int sync_mounts(const libsnbf& handle, const snbf_info& node) {
  const dev_t device = block_device(node_device(handle, node.minor));
  std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(
      mnt_new_table_from_file("/proc/self/mountinfo"), mnt_unref_table);
  std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                              mnt_free_iter);
  if (!table || !iter) return -EIO;
  libmnt_fs* entry = nullptr;
  while (device != 0 && mnt_table_next_fs(table.get(), iter.get(), &entry) == 0) {
    const char* source = mnt_fs_get_source(entry);
    const bool by_source = source && source[0] == '/' && block_device(source) == device;
    if (mnt_fs_get_devno(entry) != device && !by_source) continue;
    Fd directory(::open(mnt_fs_get_target(entry), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.ok() || ::syncfs(directory.get()) < 0) return -errno;
  }
  return 0;
}

struct Underway {
  uint64_t reads = 0;
  uint64_t writes = 0;
};

// Of a device's folder in sysfs. Nothing: it cannot be told, or the device has been told not to count.
std::optional<Underway> underway(const std::string& folder) {
  if (read_line(folder + "/queue/iostats") == "0") return std::nullopt;
  std::ifstream file(folder + "/inflight");
  Underway found;
  if (!(file >> found.reads >> found.writes)) return std::nullopt;
  return found;
}

// Where the writes of a node can be on their way.
class Way {
 public:
  Way(libsnbf* handle, uint32_t minor) {
    const std::string proc = handle->proc_root + "/snbf/snbf" + std::to_string(minor);
    const std::string devices = handle->sys_root + "/dev/block/";
    uint32_t major = 0;
    if (libsnbf_blk_major(handle, &major) != 0) return;
    held_ = proc + "/cowqueue_len";
    node_ = devices + std::to_string(major) + ":" + std::to_string(minor);
    disk_ = devices + read_line(proc + "/hdd_major") + ":" + read_line(proc + "/hdd_minor");
    std::error_code ignored;
    if (!std::filesystem::exists(disk_ + "/partition", ignored)) return;
    // It lies in its disk's folder. The system follows a link before it goes up.
    partition_ = disk_;
    disk_ += "/..";
  }

  // Asked in the order of a write's way, or one that goes on meanwhile is seen nowhere. Writes that
  // the driver has parked need no question: they are marked again when they go on. Nothing: it
  // cannot be told.
  std::optional<bool> is_free() const {
    uint64_t held = 0;
    if (std::ifstream file(held_); !(file >> held)) return std::nullopt;
    const auto node = underway(node_);
    const auto disk = underway(disk_);
    const auto partition = partition_.empty() ? Underway{} : underway(partition_);
    if (!node || !disk || !partition) return std::nullopt;
    return held == 0 && node->writes == 0 && disk->reads == 0 && disk->writes == 0 &&
           partition->writes == 0;
  }

 private:
  std::string held_;  // for a snap that still needs what they overwrite
  std::string node_;  // passed on as clones, though a control group may hold those up
  std::string disk_;
  std::string partition_;  // where there is one: some disks without a queue count here alone
};

// Waits for a moment in which no write is under way to the partition. A write is marked before it
// reaches it: one that was taken as marked must have landed before its extent is read.
//
// The disk counts what it was given, and not what its scheduler holds back: only where it has
// nothing to do, reads of other partitions included, does nothing wait. It may pause between two
// requests, so it is looked at twice. What waits for the disk's cache to be flushed first is counted
// nowhere. It is a file system's commits that do: it is told to be done with them, and the flush of
// the device itself ends behind those of file systems that are mounted where we cannot see it.
Drained drain(libsnbf* handle, const snbf_info& node) {
  if (sync_mounts(*handle, node) != 0) return Drained::NotYet;
  if (flush_node(*handle, node.minor) != 0) return Drained::NotYet;
  const Way way(handle, node.minor);
  int looks_free = 0;
  for (int step = 0; step < kDrainStepsMax; ++step) {
    std::this_thread::sleep_for(kDrainStep);
    const auto is_free = way.is_free();
    if (!is_free) return Drained::Untold;
    looks_free = *is_free ? looks_free + 1 : 0;
    if (looks_free == kDrainLooks) return Drained::Yes;
  }
  return Drained::NotYet;
}

}  // namespace
}  // namespace snbf::lib

// Who only asks whether a capture is under way has it locked for a moment.
int libsnbf_capture::take_lock() {
  constexpr int kTries = 20;
  constexpr auto kPause = std::chrono::milliseconds(5);
  if (!lock.ok()) return -errno;
  for (int tries = 1;; ++tries) {
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return 0;
    if (errno != EWOULDBLOCK) return -errno;
    if (tries == kTries) return -EBUSY;
    std::this_thread::sleep_for(kPause);
  }
}

// Minors are given out again at once: bits must not go into another node's bitmap.
int libsnbf_capture::see_node() {
  snbf_info now;
  if (libsnbf_get_info(handle, node.minor, &now) != 0) return -ENODEV;
  if (std::strcmp(now.uuid, node.uuid) != 0) return -ENODEV;
  node = now;
  return 0;
}

// The journal and the record are written by path. Beside the store nobody would find them, and the
// store's record would name a point that the bitmap no longer counts from. The lock tells the
// store from a folder that has a record of the node too. A damaged record is a blank one: it names
// no point.
int libsnbf_capture::see_store(libsnbf_state* state) {
  libsnbf_state found;
  if (int rc = snbf::lib::read_record_in_sight(node, &found); rc != 0) return rc;
  struct stat held;
  struct stat there;
  if (::fstat(lock.get(), &held) < 0) return -errno;
  if (::stat(lock_path.c_str(), &there) < 0) return errno == ENOENT ? -ENOLINK : -errno;
  if (held.st_dev != there.st_dev || held.st_ino != there.st_ino) return -ENOLINK;
  if (state) *state = found;
  return 0;
}

// Beside the store there is none, and that would look like one that is gone.
int libsnbf_capture::drop_journal() {
  const int rc = see_store();
  return rc != 0 ? rc : journal.drop();
}

int libsnbf_capture::prepare(const libsnbf_capture_request& request) {
  std::optional<snbf::lib::CaptureRecord> left;
  if (int rc = see_node(); rc != 0) return rc;
  if (!node.started) return -EINVAL;
  if (int rc = see_store(); rc != 0) return rc;
  if (int rc = journal.read(&left); rc != 0) return rc;
  if (left) return -EUCLEAN;
  if (std::strlen(request.point) >= sizeof libsnbf_state::incr_point) return -ENAMETOOLONG;
  const size_t size = node.incr_bmp_size;
  level = request.level;
  drained = Drained::Yes;
  record = {};
  record.full = level == LIBSNBF_LEVEL_FULL;
  record.node_uuid = node.uuid;
  record.destination = request.destination;
  record.point = request.point;
  for (Bits* bits : {&record.incr, &record.diff, &wanted, &unsettled}) bits->assign(size, 0);
  return snbf::lib::sync_mounts(*handle, node);
}

// Asked again behind it: what is cleared on the strength of the journal must find it in the store.
int libsnbf_capture::write_journal(bool with_bits) {
  record.captured = with_bits;
  record.time = ::time(nullptr);
  if (int rc = see_store(); rc != 0) return rc;
  if (int rc = journal.write(record); rc != 0) return rc;
  return see_store();
}

// The bits that are set now, cleared in the driver and safe in the journal. Differential first: a write
// that comes in between keeps its bit there, and the other taking has it.
int libsnbf_capture::take(bool with_diff, Bits* now) {
  const auto size = static_cast<uint32_t>(record.incr.size());
  now->assign(size, 0);
  if (int rc = write_journal(false); rc != 0) return rc;
  taken = Taken::Unknown;
  if (with_diff) {
    if (int rc =
            libsnbf_get_and_clr_bmp(handle, node.minor, SNBF_BMP_DIFF, record.diff.data(), size);
        rc != 0) {
      return rc;
    }
  }
  if (int rc = libsnbf_get_and_clr_bmp(handle, node.minor, SNBF_BMP_INCR, now->data(), size);
      rc != 0) {
    return rc;
  }
  snbf::lib::merge(&record.incr, *now);
  taken = Taken::Known;
  return write_journal(true);
}

int libsnbf_capture::make_snap(const char* cow_dir) {
  const std::string stem = std::string(node.name).substr(0, snbf::lib::kNodeNameShown) + "-backup";
  libsnbf_snap_request request{};
  request.filter_minor = node.minor;
  request.cow_dir = cow_dir;
  request.temporary = 1;
  int rc = -EEXIST;
  for (int tries = 1; rc == -EEXIST && tries <= snbf::lib::kNameTries; ++tries) {
    const std::string name = tries == 1 ? stem : stem + "." + std::to_string(tries);
    request.name = name.c_str();
    rc = libsnbf_snap_create(handle, &request);
  }
  if (rc != 0) return rc;
  start_us = request.start_us;
  snap.emplace().minor = request.minor_used;
  return libsnbf_get_info(handle, request.minor_used, &*snap);
}

// Rest settles what was taken before, too. Answers what it has settled: nothing, or all of it.
libsnbf_capture::Bits libsnbf_capture::settle(const Bits& just_taken) {
  snbf::lib::merge(&unsettled, just_taken);
  drained = snbf::lib::drain(handle, node);
  Bits settled(unsettled.size());
  if (drained == Drained::Yes) std::swap(settled, unsettled);
  return settled;
}

int libsnbf_capture::add_marked(uint32_t type) {
  Bits now(wanted.size());
  const int rc = libsnbf_get_bmp(handle, node.minor, type, now.data(), node.incr_bmp_size);
  if (rc == 0) snbf::lib::merge(&wanted, now);
  return rc;
}

int libsnbf_capture::begin(const libsnbf_capture_request& request) {
  if (stage != Stage::Open) return -EALREADY;
  if (int rc = prepare(request); rc != 0) return rc;
  stage = Stage::Begun;
  taken = Taken::Nothing;
  int rc = take(record.full, &wanted);
  if (rc == 0 && !request.cow_dir) settle(wanted);
  if (rc == 0 && request.cow_dir) rc = make_snap(request.cow_dir);
  if (rc == 0 && snap) rc = add_marked(SNBF_BMP_INCR);
  if (rc == 0 && level == LIBSNBF_LEVEL_DIFF) rc = add_marked(SNBF_BMP_DIFF);
  if (rc == 0 && level == LIBSNBF_LEVEL_FULL) wanted.assign(wanted.size(), 0xFF);
  if (rc != 0) {
    give_back();
    drop_snap();
  }
  return rc;
}

int libsnbf_capture::read_source(libsnbf_source* out, void* bits, uint32_t size) {
  if (stage == Stage::Open) return -EPROTO;
  *out = {};
  const std::string device =
      snap ? handle->dev_root + "/snbf/" + snap->name : snbf::lib::node_device(*handle, node.minor);
  snbf::lib::put_text(out->device, device);
  out->minor = snap ? snap->minor : node.minor;
  out->from_snap = snap.has_value();
  // A bitmap that was set as a whole has bits behind the last extent.
  out->unsettled_cnt = std::min<uint64_t>(snbf::lib::count(unsettled), node.extent_cnt);
  out->never_settles = drained == Drained::Untold;
  out->start_us = start_us;
  out->dev_size = node.dev_size;
  out->extent_cnt = node.extent_cnt;
  out->extent_size = static_cast<uint32_t>(node.extent_size);
  out->bits_size = static_cast<uint32_t>(wanted.size());
  if (!bits) return 0;
  if (size < wanted.size()) return -ENOSPC;
  std::memcpy(bits, wanted.data(), wanted.size());
  return 0;
}

int libsnbf_capture::again(Bits* now) {
  if (stage != Stage::Begun) return -EPROTO;
  if (snap) return -EOPNOTSUPP;
  if (int rc = see_node(); rc != 0) return rc;
  if (int rc = snbf::lib::sync_mounts(*handle, node); rc != 0) return rc;
  // Bits that are cleared and in nobody's hands can only be given back.
  if (int rc = take(false, now); rc != 0) {
    stage = Stage::Failed;
    return rc;
  }
  // What may have been read too early is read once more, now that its writes have landed.
  snbf::lib::merge(now, settle(*now));
  return 0;
}

int libsnbf_capture::check() {
  if (stage == Stage::Open) return -EPROTO;
  if (!snap) return see_node();
  snbf_info now;
  const bool valid = libsnbf_get_info(handle, snap->minor, &now) == 0 &&
                     std::strcmp(now.uuid, snap->uuid) == 0 && now.started && now.snap_valid;
  return valid ? 0 : -ENODATA;
}

int libsnbf_capture::seal() {
  if (stage == Stage::Failed) return -EPROTO;
  if (int rc = check(); rc != 0) return rc;
  const auto give_back_unsettled = [this](uint32_t type) {
    return libsnbf_merge_bmp(handle, node.minor, type, unsettled.data(),
                             static_cast<uint32_t>(unsettled.size()));
  };
  if (snbf::lib::count(unsettled) != 0) {
    if (int rc = give_back_unsettled(SNBF_BMP_INCR); rc != 0) return rc;
    // A full one has taken both, and differentials are laid over it.
    if (int rc = record.full ? give_back_unsettled(SNBF_BMP_DIFF) : 0; rc != 0) return rc;
  }
  stage = Stage::Sealed;
  return 0;
}

int libsnbf_capture::record_point(const std::string& name, bool full, int64_t time) {
  snbf::lib::HostLock host(*handle);
  if (host.error()) return host.error();
  libsnbf_state state;
  if (int rc = see_store(&state); rc != 0) return rc;
  if (!snbf::lib::put_text(state.incr_point, name)) return -ENAMETOOLONG;
  if (full) {
    snbf::lib::put_text(state.diff_point, name);
    snbf::lib::put_text(state.distrust, "");
  }
  if (int rc = libsnbf_state_write(dir.c_str(), node.minor, &state); rc != 0) return rc;
  snbf::lib::note_capture(node, full, time);
  return 0;
}

int libsnbf_capture::commit() {
  if (stage != Stage::Sealed) return -EPROTO;
  stage = Stage::Open;
  if (int rc = record_point(record.point, record.full, ::time(nullptr)); rc != 0) return rc;
  return drop_journal();
}

extern "C" {

int libsnbf_capture_open(libsnbf* handle, uint32_t filter_minor, libsnbf_capture** out) {
  return snbf::lib::at_border([&] {
    *out = nullptr;
    snbf_info node;
    if (int rc = libsnbf_get_info(handle, filter_minor, &node); rc != 0) return rc;
    if (node.dev_type != SNBF_DEV_FILTER) return -EINVAL;
    libsnbf_state ignored;
    if (int rc = snbf::lib::read_record_in_sight(node, &ignored); rc != 0) return rc;
    auto capture = std::make_unique<libsnbf_capture>(handle, node);
    if (int rc = capture->take_lock(); rc != 0) return rc;
    *out = capture.release();
    return 0;
  });
}

int libsnbf_capture_pending(libsnbf* handle, uint32_t filter_minor, int* pending) {
  return snbf::lib::at_border([&] {
    snbf_info node;
    std::optional<snbf::lib::CaptureRecord> left;
    if (int rc = libsnbf_get_info(handle, filter_minor, &node); rc != 0) return rc;
    const snbf::lib::CaptureJournal journal(snbf::lib::bmp_dir_of(node), filter_minor);
    const int rc = journal.read(&left);
    *pending = left.has_value();
    return rc;
  });
}

void libsnbf_capture_close(libsnbf_capture* capture) {
  if (!capture) return;
  libsnbf_capture_abort(capture, nullptr);
  delete capture;
}

int libsnbf_capture_recover(libsnbf_capture* capture, libsnbf_capture_known_fn known, void* context,
                            libsnbf_recovered* out, uint32_t* snaps_left) {
  uint32_t ignored = 0;
  return snbf::lib::at_border(
      [&] { return capture->recover(known, context, out, snaps_left ? snaps_left : &ignored); });
}

int libsnbf_capture_begin(libsnbf_capture* capture, const libsnbf_capture_request* request) {
  return snbf::lib::at_border([&] { return capture->begin(*request); });
}

int libsnbf_capture_source(libsnbf_capture* capture, struct libsnbf_source* out, void* bits,
                           uint32_t bits_size) {
  return snbf::lib::at_border([&] { return capture->read_source(out, bits, bits_size); });
}

int libsnbf_capture_again(libsnbf_capture* capture, void* bits, uint32_t bits_size) {
  return snbf::lib::at_border([&] {
    snbf::lib::Bits now;
    struct libsnbf_source about;
    if (int rc = capture->read_source(&about, nullptr, 0); rc != 0) return rc;
    if (bits_size < about.bits_size) return -ENOSPC;
    if (int rc = capture->again(&now); rc != 0) return rc;
    std::memcpy(bits, now.data(), now.size());
    return 0;
  });
}

int libsnbf_capture_check(libsnbf_capture* capture) {
  return snbf::lib::at_border([&] { return capture->check(); });
}

int libsnbf_capture_seal(libsnbf_capture* capture) {
  return snbf::lib::at_border([&] { return capture->seal(); });
}

int libsnbf_capture_commit(libsnbf_capture* capture, int* snap_left) {
  return snbf::lib::at_border([&] {
    if (snap_left) *snap_left = 0;
    const int rc = capture->commit();
    if (rc == -EPROTO) return rc;
    const int left = capture->drop_snap();
    if (snap_left) *snap_left = left;
    return rc;
  });
}

int libsnbf_capture_abort(libsnbf_capture* capture, int* snap_left) {
  return snbf::lib::at_border([&] {
    const int rc = capture->give_back();
    const int left = capture->drop_snap();
    if (snap_left) *snap_left = left;
    return rc;
  });
}

}  // extern "C"
