// SPDX-License-Identifier: GPL-2.0-only
#include "capture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <thread>

#include "failure.h"
#include "files.h"
#include "freeze.h"
#include "image.h"
#include "output.h"
#include "reasons.h"

namespace snbf {

namespace {

constexpr int kRoundsMax = 5;
constexpr uint64_t kFreezeWorthBytes = 32 << 20;  // less than this is copied under the freeze
constexpr auto kDrainStep = std::chrono::milliseconds(10);
constexpr int kDrainStepsMax = 200;

volatile std::sig_atomic_t interrupted = 0;

// While it lives, a signal ends the capture in order, instead of the process.
class SignalWatch {
 public:
  SignalWatch() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = 1; };
    for (size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &action, &before_[i]);
  }
  ~SignalWatch() {
    for (size_t i = 0; i < 3; ++i) ::sigaction(kSignals[i], &before_[i], nullptr);
  }

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction before_[3];
};

// The node's device, and how still it stands.
class Source {
 public:
  explicit Source(const snbf_info& node) : node_(node) {
    const std::string path = node_path(node);
    mounts_ = mounts_of(device_of(path));
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_DIRECT;
    // Exclusive: nothing can be mounted while we copy what is not mounted now.
    fd_ = UniqueFd(::open(path.c_str(), kFlags | O_EXCL));
    exclusive_ = static_cast<bool>(fd_);
    if (!fd_ && errno == EBUSY) fd_ = UniqueFd(::open(path.c_str(), kFlags));
    if (!fd_) throw failure_of(-errno, "opening " + path);
  }

  int fd() const { return fd_.get(); }
  bool unmounted() const { return exclusive_; }
  const std::vector<std::string>& mounts() const { return mounts_; }

  // What the file systems hold back goes to the device.
  void sync() const {
    for (const std::string& mount : mounts_) {
      UniqueFd directory(::open(mount.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!directory || ::syncfs(directory.get()) < 0) throw failure_of(-errno, "syncing " + mount);
    }
  }

  // A write is marked before it reaches the partition: one that was taken as marked must have
  // landed before its extent is read. False: it cannot be told that all have.
  bool drain() const {
    const dev_t partition = partition_of(node_);
    if (partition == 0) return false;
    const std::string path =
        fmt::format("/sys/dev/block/{}:{}/inflight", major(partition), minor(partition));
    for (int step = 0; step < kDrainStepsMax && !interrupted; ++step) {
      std::this_thread::sleep_for(kDrainStep);
      std::ifstream file(path);
      uint64_t reads = 0;
      uint64_t writes = 0;
      if (!(file >> reads >> writes)) return false;
      if (writes == 0) return true;
    }
    return false;
  }

 private:
  const snbf_info& node_;
  std::vector<std::string> mounts_;
  UniqueFd fd_;
  bool exclusive_ = false;
};

class Capture {
 public:
  Capture(const Driver& driver, const snbf_info& node, const Plan& plan,
          const CaptureOptions& options, const std::string& destination, Manifest* manifest)
      : driver_(driver),
        node_(node),
        plan_(plan),
        options_(options),
        destination_(destination),
        manifest_(*manifest),
        source_(node),
        journal_(bmp_dir_of(node), node.minor),
        taken_incr_(driver.empty_bitmap(node)),
        taken_diff_(driver.empty_bitmap(node)),
        unsettled_(driver.empty_bitmap(node)) {
    point_.id = manifest_.next_id();
    point_.level = plan.level;
    point_.file = fmt::format("{:04}-{}.qcow2", point_.id, level_name(plan.level));
    point_.why = plan.why;
    point_.detail = plan.detail;
    if (plan.parent) point_.parent = plan.parent->id;
    partial_ = destination_ + "/" + point_.file + ".partial";
  }

  Point run() {
    const auto began = std::chrono::steady_clock::now();
    point_.created = ::time(nullptr);
    try {
      make_image();
      // What may have been read before it had landed counts as changed again, and goes into the next point.
      if (!unsettled_.none()) driver_.merge(node_, SNBF_BMP_INCR, unsettled_);
      point_.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      commit();
    } catch (...) {
      if (!committed_) give_back();
      throw;
    }
    settle();
    return point_;
  }

 private:
  void make_image() {
    remove_file(partial_);
    create_image(partial_, node_.dev_size, cluster_for(node_.extent_size),
                 plan_.parent ? plan_.parent->file : "");
    ImageWriter image(partial_);
    copy_rounds(&image);
    image.finish();
    sync_file(partial_);
  }

  // The bits that are set now, cleared in the driver and safe in the journal.
  Extents take(bool first) {
    source_.sync();
    const bool with_diff = first && plan_.level == Level::Full;
    journal_.write(record(false));
    began_ = true;
    captured_ = false;
    Extents now = driver_.get_and_clear(node_, SNBF_BMP_INCR);
    taken_incr_.merge(now);
    if (with_diff) taken_diff_.merge(driver_.get_and_clear(node_, SNBF_BMP_DIFF));
    journal_.write(record(true));
    captured_ = true;
    if (!source_.drain()) unsettled_.merge(now);
    return now;
  }

  CaptureRecord record(bool captured) const {
    return {captured,     plan_.level == Level::Full,
            destination_, point_name(manifest_, point_.id),
            taken_incr_,  taken_diff_};
  }

  void copy(ImageWriter* image, const Extents& which, bool leave_zeros, const char* label) {
    Progress progress(label, which.covered_bytes());
    const auto on_read = [&progress](uint64_t bytes) {
      progress.add(bytes);
      if (interrupted) {
        throw Failure(kFailed, "interrupted: nothing was kept, and the bitmap is as it was");
      }
    };
    point_.data_bytes +=
        copy_extents(source_.fd(), which, image, leave_zeros, on_read).written_bytes;
  }

  void copy_again(ImageWriter* image, const char* label) {
    const Extents moved = take(false);
    point_.moved_bytes += moved.covered_bytes();
    copy(image, moved, false, label);
  }

  bool pending() const { return !driver_.get(node_, SNBF_BMP_INCR).none(); }

  void copy_rounds(ImageWriter* image) {
    Extents which = take(true);
    if (plan_.level == Level::Full) which.set_all();
    if (plan_.level == Level::Differential) which.merge(driver_.get(node_, SNBF_BMP_DIFF));
    point_.extents = which.count();
    point_.bytes = which.covered_bytes();
    copy(image, which, plan_.level == Level::Full, "copying");
    if (options_.freeze && !source_.mounts().empty()) {
      copy_frozen(image);
      return;
    }
    for (int round = 1; pending() && round < kRoundsMax; ++round)
      copy_again(image, "copying again");
    // What is still marked stays in the bitmap, and so in the next point.
    const bool moving = pending() || !unsettled_.none();
    point_.source = moving ? "moving" : source_.unmounted() ? "unmounted" : "quiet";
  }

  void copy_frozen(ImageWriter* image) {
    if (driver_.get(node_, SNBF_BMP_INCR).covered_bytes() > kFreezeWorthBytes) {
      copy_again(image, "copying again");
    }
    Freeze freeze(source_.mounts().front(), options_.freeze_limit);
    if (pending()) copy_again(image, "copying, frozen");
    const bool still = !pending() && unsettled_.none();
    const bool held = freeze.thaw();
    point_.frozen_ms = freeze.lasted_ms();
    if (!held) {
      warn(fmt::format("the freeze did not last until the end of the copy (its limit: {} ms)",
                       options_.freeze_limit.count()));
    }
    point_.source = held && still ? "frozen" : "moving";
  }

  void commit() {
    const std::string path = destination_ + "/" + point_.file;
    struct stat about;
    if (::stat(partial_.c_str(), &about) < 0) throw failure_of(-errno, "looking at " + partial_);
    point_.file_bytes = static_cast<uint64_t>(about.st_size);
    point_.hash = hash_file(partial_);
    if (::rename(partial_.c_str(), path.c_str()) < 0) throw failure_of(-errno, "naming " + path);
    sync_directory(destination_);
    manifest_.points.push_back(point_);
    manifest_.node_uuid = node_.uuid;
    manifest_.node = node_.name;
    manifest_.partition = node_.hdd_name;
    manifest_.size = node_.dev_size;
    manifest_.extent_size = node_.extent_size;
    replace_file(manifest_path(destination_), to_json_text(manifest_));
    committed_ = true;
  }

  // From here the bitmap counts from the new point; until the journal goes, recovery does the same.
  void settle() {
    record_point(node_, point_name(manifest_, point_.id), plan_.level == Level::Full);
    journal_.drop();
  }

  // The bitmap becomes what it would be had we never come. If even that fails, the journal stays.
  void give_back() noexcept {
    try {
      remove_file(partial_);
      if (began_ && !captured_) {
        driver_.set_all(node_, SNBF_BMP_INCR);
        if (plan_.level == Level::Full) driver_.set_all(node_, SNBF_BMP_DIFF);
      }
      if (captured_) {
        driver_.merge(node_, SNBF_BMP_INCR, taken_incr_);
        if (plan_.level == Level::Full) driver_.merge(node_, SNBF_BMP_DIFF, taken_diff_);
      }
      if (began_) journal_.drop();
    } catch (const std::exception& error) {
      warn(fmt::format("the bitmap could not be given back ({}); the next backup will do it",
                       error.what()));
    }
  }

 public:
  static void record_point(const snbf_info& node, const std::string& point, bool full) {
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

 private:
  const Driver& driver_;
  const snbf_info& node_;
  const Plan& plan_;
  const CaptureOptions& options_;
  const std::string& destination_;
  Manifest& manifest_;
  Source source_;
  CaptureJournal journal_;
  Point point_;
  std::string partial_;
  Extents taken_incr_;
  Extents taken_diff_;
  Extents unsettled_;  // taken, and perhaps still on their way to the partition when they were read
  bool began_ = false;
  bool captured_ = false;
  bool committed_ = false;
};

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

}  // namespace

std::string recover_capture(const Driver& driver, const snbf_info& node) {
  const CaptureJournal journal(bmp_dir_of(node), node.minor);
  const auto record = journal.read();
  if (!record) return "";
  if (record->captured && stands_in_manifest(*record)) {
    Capture::record_point(node, record->point, record->full);
    journal.drop();
    return "an earlier backup was cut off at its very end; it is complete";
  }
  if (record->captured && record->incr.same_shape(driver.empty_bitmap(node))) {
    driver.merge(node, SNBF_BMP_INCR, record->incr);
    if (record->full) driver.merge(node, SNBF_BMP_DIFF, record->diff);
    journal.drop();
    return "an earlier backup was cut off; what it had taken counts as changed again";
  }
  driver.set_all(node, SNBF_BMP_INCR);
  if (record->full) driver.set_all(node, SNBF_BMP_DIFF);
  libsnbf_state state = read_state(node);
  std::strncpy(state.distrust, kWhyCrash, sizeof state.distrust - 1);
  write_state(node, state);
  journal.drop();
  return "an earlier backup was cut off while it took the bitmap: every extent counts as changed";
}

Point capture(const Driver& driver, const snbf_info& node, const Plan& plan,
              const CaptureOptions& options, const std::string& destination, Manifest* manifest) {
  const SignalWatch watch;
  interrupted = 0;
  return Capture(driver, node, plan, options, destination, manifest).run();
}

}  // namespace snbf
