// SPDX-License-Identifier: GPL-2.0-only
#include "capture.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <optional>

#include "failure.h"
#include "files.h"
#include "freeze.h"
#include "image.h"
#include "output.h"
#include "sizes.h"
#include "skipped.h"
#include "snaps.h"
#include "source.h"
#include "usage.h"

namespace snbf {

namespace {

constexpr int kRoundsMax = 5;
constexpr uint64_t kFreezeWorthBytes = 32 << 20;  // less than this is copied under the freeze

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
        journal_(bmp_dir_of(node), node.minor),
        taken_incr_(driver.empty_bitmap(node)),
        taken_diff_(driver.empty_bitmap(node)),
        unsettled_(driver.empty_bitmap(node)),
        parent_skipped_(driver.empty_bitmap(node)),
        skipped_(driver.empty_bitmap(node)) {
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
      if (plan_.parent) parent_skipped_ = load_skipped(manifest_, *plan_.parent, destination_);
      make_image();
      // What may have been read before it had landed counts as changed again, and goes into the
      // next point.
      if (!unsettled_.none()) driver_.merge(node_, SNBF_BMP_INCR, unsettled_);
      point_.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      commit();
    } catch (const std::exception& error) {
      if (!committed_) give_back();
      if (!committed_ && snap_ && !snap_->valid()) throw snap_lost(error);
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
    if (options_.cow_dir.empty()) live_.emplace(node_);
    const Extents first = take(plan_.level == Level::Full);
    if (live_ || !start_snap()) {
      copy_live(&image, first);
    } else {
      copy_from_snap(&image, first);
    }
    image.finish();
    sync_file(partial_);
  }

  // The bits that are set now, cleared in the driver and safe in the journal.
  Extents take(bool with_diff) {
    sync_mounts(node_);
    journal_.write(record(false));
    began_ = true;
    captured_ = false;
    Extents now = driver_.get_and_clear(node_, SNBF_BMP_INCR);
    taken_incr_.merge(now);
    if (with_diff) taken_diff_.merge(driver_.get_and_clear(node_, SNBF_BMP_DIFF));
    journal_.write(record(true));
    captured_ = true;
    if (live_) settle_writes(now);
    return now;
  }

  void settle_writes(const Extents& taken) {
    if (!live_->drain([] { return interrupted != 0; })) unsettled_.merge(taken);
  }

  CaptureRecord record(bool captured) const {
    return {captured,     plan_.level == Level::Full,       node_.uuid,
            destination_, point_name(manifest_, point_.id), taken_incr_,
            taken_diff_};
  }

  // False: it is done without one.
  bool start_snap() {
    try {
      snap_.emplace(driver_, node_, options_.cow_dir);
      return true;
    } catch (const Failure& failure) {
      if (options_.snap_required) throw;
      warn(fmt::format("{}; copying without a snap", failure.what()));
    }
    return false;
  }

  void copy(ImageWriter* image, int source_fd, const Extents& which, bool leave_zeros,
            const char* label) {
    Progress progress(label, which.covered_bytes());
    const auto on_read = [&progress](uint64_t bytes) {
      progress.add(bytes);
      if (interrupted) {
        throw Failure(kFailed, "interrupted: nothing was kept, and the bitmap is as it was");
      }
    };
    point_.data_bytes += copy_extents(source_fd, which, image, leave_zeros, on_read).written_bytes;
  }

  // What this point has to account for: what was taken, and whatever else the level asks for.
  Extents widen(Extents which) {
    if (plan_.level == Level::Full) which.set_all();
    if (plan_.level == Level::Differential) which.merge(driver_.get(node_, SNBF_BMP_DIFF));
    return which;
  }

  // What of it is copied; what is not is noted, and zero in the image.
  Extents leave_out(ImageWriter* image, const Extents& changed, const Extents& used) {
    Sorted sorted = sort_out(changed, used, plan_.parent ? &parent_skipped_ : nullptr);
    zero_extents(sorted.zeroed, image);
    skipped_ = std::move(sorted.skipped);
    point_.extents = sorted.copied.count();
    point_.bytes = sorted.copied.covered_bytes();
    return std::move(sorted.copied);
  }

  Extents everything(const char* because) {
    Extents all = driver_.empty_bitmap(node_);
    all.set_all();
    point_.whole_because = because;
    return all;
  }

  Extents used_by_snap() {
    if (options_.whole) return everything("it was asked for");
    Usage usage = usage_of(driver_, node_, snap_->node(), snap_path(snap_->node()));
    point_.whole_because = usage.why_all;
    return std::move(usage.used);
  }

  // A write between the taking and the start is in the snap, and its mark is still in the bitmap:
  // it is copied now, and once more with the next point.
  void copy_from_snap(ImageWriter* image, Extents which) {
    which.merge(driver_.get(node_, SNBF_BMP_INCR));
    which = leave_out(image, widen(std::move(which)), used_by_snap());
    copy(image, snap_->fd(), which, plan_.level == Level::Full, "copying the snap");
    if (!snap_->valid()) throw Failure(kSnapLost, "the snap was lost while it was copied");
    point_.source = "snap";
    if (!mounts_of(device_of(node_path(node_))).empty()) point_.frozen_ms = snap_->start_ms();
  }

  Failure snap_lost(const std::exception& error) const {
    return {
        kSnapLost,
        fmt::format("the snap was lost while it was copied ({}): nothing was kept, and the bitmap "
                    "is as it was",
                    error.what()),
        fmt::format("{} free in {}: make room there, or name another directory with --cow",
                    show_size(free_bytes_in(options_.cow_dir)), options_.cow_dir)};
  }

  void copy_again(ImageWriter* image, const char* label) {
    const Extents moved = take(false);
    point_.moved_bytes += moved.covered_bytes();
    copy(image, live_->fd(), moved, false, label);
  }

  bool pending() const { return !driver_.get(node_, SNBF_BMP_INCR).none(); }

  void copy_live(ImageWriter* image, const Extents& first) {
    if (!live_) {
      live_.emplace(node_);
      settle_writes(first);
    }
    const Extents which =
        leave_out(image, widen(first), everything("only a snap shows what is free"));
    copy(image, live_->fd(), which, plan_.level == Level::Full, "copying");
    if (options_.freeze && !live_->mounts().empty()) {
      copy_frozen(image);
      return;
    }
    for (int round = 1; pending() && round < kRoundsMax; ++round)
      copy_again(image, "copying again");
    // What is still marked stays in the bitmap, and so in the next point.
    const bool moving = pending() || !unsettled_.none();
    point_.source = moving ? "moving" : live_->unmounted() ? "unmounted" : "quiet";
  }

  void copy_frozen(ImageWriter* image) {
    if (driver_.get(node_, SNBF_BMP_INCR).covered_bytes() > kFreezeWorthBytes) {
      copy_again(image, "copying again");
    }
    Freeze freeze(live_->mounts().front(), options_.freeze_limit);
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
    store_skipped(destination_, skipped_, &point_);
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

  const Driver& driver_;
  const snbf_info& node_;
  const Plan& plan_;
  const CaptureOptions& options_;
  const std::string& destination_;
  Manifest& manifest_;
  CaptureJournal journal_;
  Point point_;
  std::string partial_;
  Extents taken_incr_;
  Extents taken_diff_;
  Extents unsettled_;  // taken, and perhaps still on their way to the partition when they were read
  Extents parent_skipped_;
  Extents skipped_;  // by this point
  bool began_ = false;
  bool captured_ = false;
  bool committed_ = false;
  std::optional<LiveSource> live_;
  std::optional<SnapSource> snap_;  // goes with us, after the journal
};

}  // namespace

Point capture(const Driver& driver, const snbf_info& node, const Plan& plan,
              const CaptureOptions& options, const std::string& destination, Manifest* manifest) {
  const SignalWatch watch;
  interrupted = 0;
  return Capture(driver, node, plan, options, destination, manifest).run();
}

}  // namespace snbf
