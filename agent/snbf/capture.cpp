// SPDX-License-Identifier: GPL-2.0-only
#include "capture.h"

#include <fmt/format.h>

#include <ctime>
#include <optional>

#include "failure.h"
#include "freeze.h"
#include "image.h"
#include "output.h"
#include "signals.h"
#include "sizes.h"
#include "skipped.h"
#include "snaps.h"
#include "source.h"
#include "usage.h"

namespace snbf {

namespace {

constexpr int kRoundsMax = 5;
constexpr uint64_t kFreezeWorthBytes = 32 << 20;  // less than this is copied under the freeze

class Capture {
 public:
  Capture(const Driver& driver, const snbf_info& node, const Plan& plan,
          const CaptureOptions& options, NodeCapture* taken, Store* store)
      : driver_(driver),
        node_(node),
        plan_(plan),
        options_(options),
        taken_(*taken),
        store_(*store),
        copied_(driver.empty_bitmap(node)),
        skipped_(driver.empty_bitmap(node)) {}

  Captured run() {
    const auto began = std::chrono::steady_clock::now();
    bool committed = false;
    try {
      point_ = store_.open(plan_);
      point_.created = ::time(nullptr);
      copy();
      store_.land(&point_);
      // What may have been read before it had landed counts as changed again, and goes into the
      // next point.
      taken_.seal();
      point_.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      store_.commit(&point_, copied_, skipped_);
      committed = true;
      snap_.reset();
      if (store_.is_parent()) {
        taken_.commit();
      } else {
        taken_.abort();
      }
    } catch (const std::exception& error) {
      if (committed) throw;
      const bool lost = from_snap() && !taken_.valid();
      give_back();
      if (lost) throw snap_lost(error);
      throw;
    }
    return {point_, hook_failed_};
  }

 private:
  bool from_snap() const { return taken_.source().from_snap != 0; }

  void copy() {
    if (options_.cow_dir.empty()) live_.emplace(node_);
    hooks_.emplace(options_.hooks, hook_environment());
    hooks_->before_freeze([] { return SignalsNoted::any(); });
    begin();
    if (from_snap()) {
      after_thaw("done");
      snap_ = open_snap(taken_.source().device);
      copy_from_snap();
    } else {
      copy_live();
    }
  }

  Environment hook_environment() const {
    return {{"SNBF_NODE", node_.name},
            {"SNBF_DEVICE", node_path(node_)},
            {"SNBF_LEVEL", level_name(plan_.level)},
            {"SNBF_DESTINATION", store_.place()},
            {"SNBF_POINT", std::to_string(point_.id)}};
  }

  // Told at once: whatever fails behind it, the application may still be at rest.
  void after_thaw(const std::string& outcome) {
    const std::string trouble = hooks_->after_thaw(outcome);
    if (trouble.empty()) return;
    hook_failed_ = true;
    warn(trouble);
  }

  void begin(const std::string& cow_dir) {
    taken_.begin(plan_.level, store_.journal_folder(), store_.journal_point(point_), cow_dir);
  }

  void begin() {
    try {
      begin(options_.cow_dir);
    } catch (const Failure& failure) {
      if (options_.cow_dir.empty() || options_.snap_required) throw;
      warn(fmt::format("{}; copying without a snap", failure.what()));
      live_.emplace(node_);
      begin("");
    }
  }

  void copy(int source_fd, const Extents& which, bool leave_zeros, const char* label) {
    Progress progress(label, which.covered_bytes());
    const auto on_read = [&](uint64_t bytes) {
      progress.add(bytes);
      end_if_interrupted(store_.left_behind());
    };
    point_.data_bytes +=
        copy_extents(source_fd, which, &store_.sink(), leave_zeros, on_read).written_bytes;
  }

  // What of it is copied; what is not is noted, and zero in the image.
  const Extents& leave_out(const Extents& changed, const Extents& used) {
    Sorted sorted = sort_out(changed, used, store_.parent_skipped());
    zero_extents(store_.parent_skipped_is_zero() ? sorted.zeroed : sorted.skipped, &store_.sink());
    skipped_ = std::move(sorted.skipped);
    point_.extents = sorted.copied.count();
    point_.bytes = sorted.copied.covered_bytes();
    copied_ = std::move(sorted.copied);
    return copied_;
  }

  Extents everything(const char* because) {
    Extents all = driver_.empty_bitmap(node_);
    all.set_all();
    point_.whole_because = because;
    return all;
  }

  Extents used_by_snap() {
    if (options_.whole) return everything("it was asked for");
    Usage usage =
        usage_of(driver_, node_, driver_.info(taken_.source().minor), taken_.source().device);
    point_.whole_because = usage.why_all;
    return std::move(usage.used);
  }

  void copy_from_snap() {
    const Extents& which = leave_out(taken_.wanted(), used_by_snap());
    copy(snap_.get(), which, store_.blank(), "copying the snap");
    if (!taken_.valid()) throw Failure(kSnapLost, "the snap was lost while it was copied");
    point_.source = "snap";
    if (!mounts_of(device_of(node_path(node_))).empty()) {
      point_.frozen_ms = (taken_.source().start_us + 999) / 1000;
    }
  }

  Failure snap_lost(const std::exception& error) const {
    return {
        kSnapLost,
        fmt::format("the snap was lost while it was copied ({}): {}, and the bitmap is as it was",
                    error.what(), store_.left_behind()),
        fmt::format("{} free in {}: make room there, or name another directory with --cow",
                    show_size(free_bytes_in(options_.cow_dir)), options_.cow_dir)};
  }

  // To be copied again.
  struct Moved {
    Extents extents;
    uint64_t settled_bytes;  // of them: not written meanwhile, as a rule
  };

  Moved take_again() {
    const uint64_t unsettled = taken_.unsettled().bytes;
    Moved moved{taken_.again(), 0};
    const uint64_t all = moved.extents.covered_bytes();
    if (taken_.unsettled().bytes == 0) moved.settled_bytes = std::min(unsettled, all);
    point_.moved_bytes += all - moved.settled_bytes;
    return moved;
  }

  void copy_moved(const Moved& moved, const char* label) {
    copied_.merge(moved.extents);
    copy(live_->fd(), moved.extents, false, label);
  }

  bool marked() const { return !driver_.get(node_, SNBF_BMP_INCR).none(); }
  bool exact() const { return !marked() && taken_.unsettled().bytes == 0; }
  bool worth_another_look() const { return marked() || taken_.unsettled().may_settle(); }

  void copy_live() {
    const Extents& which = leave_out(taken_.wanted(), everything("only a snap shows what is free"));
    copy(live_->fd(), which, store_.blank(), "copying");
    if (options_.freeze && !live_->mounts().empty()) {
      copy_frozen();
      return;
    }
    for (int round = 1; worth_another_look() && round < kRoundsMax; ++round) {
      copy_moved(take_again(), "copying again");
    }
    // What is still marked stays in the bitmap, and so in the next point.
    point_.source = !exact() ? "moving" : live_->unmounted() ? "unmounted" : "quiet";
    after_thaw("done");
  }

  void copy_frozen() {
    if (taken_.unsettled().may_settle() ||
        driver_.get(node_, SNBF_BMP_INCR).covered_bytes() > kFreezeWorthBytes) {
      copy_moved(take_again(), "copying again");
    }
    Freeze freeze(live_->mounts().front(), options_.freeze_limit);
    Moved moved{driver_.empty_bitmap(node_), 0};
    if (worth_another_look()) moved = take_again();
    // A disk that comes to rest only now settles all that was taken before, which may be the whole
    // device: nobody is kept waiting while that is read.
    const bool is_short = moved.settled_bytes <= kFreezeWorthBytes;
    if (is_short) copy_moved(moved, "copying, frozen");
    const bool still = is_short && exact();
    const bool held = freeze.thaw();
    after_thaw("done");
    point_.frozen_ms = freeze.lasted_ms();
    if (!held) {
      warn(fmt::format("the freeze did not last until the end of the copy (its limit: {} ms)",
                       options_.freeze_limit.count()));
    }
    if (!is_short) copy_moved(moved, "copying again");
    point_.source = held && still ? "frozen" : "moving";
  }

  void give_back() noexcept {
    // The application goes on before anything else is tidied up.
    if (hooks_) after_thaw("failed");
    store_.discard();
    snap_.reset();
    live_.reset();
    taken_.abort();
  }

  const Driver& driver_;
  const snbf_info& node_;
  const Plan& plan_;
  const CaptureOptions& options_;
  NodeCapture& taken_;
  Store& store_;
  Point point_;
  Extents copied_;
  Extents skipped_;  // by this point
  std::optional<Hooks> hooks_;
  bool hook_failed_ = false;
  std::optional<LiveSource> live_;
  UniqueFd snap_;
};

}  // namespace

Captured capture(const Driver& driver, const snbf_info& node, const Plan& plan,
                 const CaptureOptions& options, NodeCapture* taken, Store* store) {
  const SignalsNoted signals;  // end the capture in order, instead of the process
  return Capture(driver, node, plan, options, taken, store).run();
}

}  // namespace snbf
