// SPDX-License-Identifier: GPL-2.0-only
#include "instant.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <vector>

#include "boot_files.h"
#include "failure.h"
#include "held_chain.h"
#include "overlay_server.h"
#include "words.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

constexpr int kRegionSectors = 1024;
constexpr unsigned kNbdMajor = 43;

constexpr const char* kPackage = "dmsetup";

std::string dmsetup(const std::vector<std::string>& words) {
  std::vector<std::string> arguments = {"dmsetup"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  return run_or_throw(arguments, kPackage, "look at `dmesg`");
}

void check_name(const std::string& name) {
  const bool good = !name.empty() && name[0] != '-' && name[0] != '.' && name != "control" &&
                    std::all_of(name.begin(), name.end(), [](unsigned char c) {
                      return std::isalnum(c) || c == '_' || c == '-' || c == '.';
                    });
  if (good) return;
  throw Failure(kMisused, fmt::format("\"{}\" is no name for a device", name),
                "use letters, digits, '_', '-' and '.': it becomes /dev/mapper/NAME");
}

std::string uuid_for(const std::string& name) { return "SNBF-INSTANT-" + name; }

std::string numbers_of(const std::string& path) {
  struct stat about;
  if (::stat(path.c_str(), &about) < 0) throw failure_of(-errno, "looking at " + path);
  return fmt::format("{}:{}", major(about.st_rdev), minor(about.st_rdev));
}

// The device with that number, if it is one; else empty.
std::string nbd_of(const std::string& numbers) {
  const std::string start = fmt::format("{}:", kNbdMajor);
  return numbers.rfind(start, 0) == 0 ? "/dev/nbd" + numbers.substr(start.size()) : "";
}

std::string backing_of(const std::string& image) {
  const auto about =
      nlohmann::json::parse(run_or_throw({"qemu-img", "info", "-U", "--output=json", image}));
  return about.value("full-backing-filename", "");
}

std::string lasting_name_of(const std::string& device) {
  try {
    return stable_name_of(device);
  } catch (const Failure&) {
    return device;
  }
}

// "UUID ATTRIBUTES", as dmsetup has them; empty: there is no device of that name.
std::vector<std::string> known_of(const std::string& name) {
  const std::vector<std::string> ask = {
      "dmsetup", "info", "-c", "--noheadings", "--separator", " ", "-o", "uuid,attr", name};
  const Ran info = run(ask);
  if (info.status == 127) require_success(ask, info, kPackage);
  return info.status == 0 ? words_of(info.output) : std::vector<std::string>();
}

}  // namespace

Instant::Instant(InstantWish wish) : wish_(std::move(wish)) {
  check_name(wish_.name);
  look();
}

void Instant::look() {
  Remains remains;
  remains.overlay = fs::exists(overlay());
  remains.mark = fs::exists(mark());
  if (const auto known = known_of(wish_.name); !known.empty()) {
    const LiveTable table = live_table_of(dmsetup({"table", wish_.name}));
    remains.device = known[0] == uuid_for(wish_.name) ? table.kind : LiveTable::Kind::Other;
    remains.suspended = known.size() > 1 && known[1].find('s') != std::string::npos;
    if (remains.device == LiveTable::Kind::Other || table.target != numbers_of(wish_.target)) {
      throw Failure(
          kBusy,
          fmt::format("{} is there already, and is no restore onto {}", device(), wish_.target),
          "choose another name, or take it away: `dmsetup remove " + wish_.name + "`");
    }
    wish_.size_bytes = table.sectors * 512;  // of the point, when it was begun
    if (!table.source.empty()) source_ = nbd_of(table.source);
  }
  stage_ = stage_of(remains);
  suspended_ = remains.suspended;
  check_places();
}

// What was begun is gone on with where it was begun.
void Instant::check_places() const {
  if (stage_ == Stage::Over) {
    throw Failure(
        kBusy,
        fmt::format("{} is there already: a restore onto {} that is done", device(), wish_.target),
        "take it away when it is not in use: `dmsetup remove " + wish_.name + "`");
  }
  const std::string served = source_.empty() ? "" : served_by(source_);
  if (!served.empty() && served != overlay()) {
    throw Failure(kMisused, fmt::format("the overlay of {} is {}", device(), served),
                  "name its folder with --scratch");
  }
  if (stage_ != Stage::Whole) return;
  if (const std::string target = read_mark().target; target != lasting_name_of(wish_.target)) {
    throw Failure(kUnsafe,
                  fmt::format("{} is of a restore onto {}, which is whole", mark(), target),
                  "give that target, and what is left of it is taken away");
  }
}

Mark Instant::read_mark() const {
  std::string text;
  read_file(mark(), &text);
  return parse_mark(text, mark());
}

// Gone for certain, before anything is written that it would not be true of.
void Instant::drop_mark() {
  remove_file(mark());
  sync_directory(wish_.scratch);
}

std::string Instant::image() const {
  return fs::exists(mark()) ? read_mark().image : backing_of(overlay());
}

void Instant::take_over() {
  lock_ = lock_file("/run/snbf-instant-" + wish_.name + ".lock", device());
  look();  // whoever had the lock may have gone on since
  if (stage_ == Stage::Copied) {
    switch_over();
  } else {
    bring_on();
  }
}

void Instant::make_overlay() {
  if (stage_ == Stage::LeftOver) {
    const fs::path image = backing_of(overlay());
    std::error_code gone;
    if (!fs::equivalent(image, wish_.image, gone)) {
      throw Failure(
          kUnsafe,
          fmt::format("{} is left from a restore of {}, with what was written to it since",
                      overlay(), image.string()),
          fmt::format("go on with that one, DEST@{}, or remove the file",
                      image.filename().string()));
    }
  }
  hold_chain(folder_of(wish_.image), wish_.name);
  if (stage_ == Stage::LeftOver) return;
  const std::string aside = overlay() + ".new";
  run_or_throw(
      {"qemu-img", "create", "-q", "-f", "qcow2", "-b", wish_.image, "-F", "qcow2", aside});
  sync_file(aside);
  fs::rename(aside, overlay());
  sync_directory(wish_.scratch);
}

void Instant::begin() {
  if (stage_ == Stage::None) {
    // One that serves what somebody has removed would take the new one's place.
    if (const std::string stale = server_of(overlay()); !stale.empty()) end_server(stale);
  }
  try {
    make_overlay();
    source_ = serve(overlay(), "/run/snbf-instant-" + wish_.name + ".sock", wish_.size_bytes);
    dmsetup({"create", wish_.name, "--uuid", uuid_for(wish_.name), "--table",
             fmt::format("0 {} mirror core 1 {} 2 {} 0 {} 0 1 handle_errors", sectors(),
                         kRegionSectors, source_, wish_.target)});
  } catch (...) {
    if (!source_.empty()) run({"qemu-nbd", "--disconnect", source_});
    source_.clear();
    if (stage_ == Stage::None) {
      remove_file(overlay());
      release_chain(folder_of(wish_.image), wish_.name);
    }
    throw;
  }
  stage_ = Stage::Copying;
}

double Instant::percent() const {
  if (stage_ != Stage::Copying) return 100;
  const MirrorState state = mirror_state_of(dmsetup({"status", wish_.name}));
  if (state.health.find_first_not_of('A') != std::string::npos) {
    const bool source = state.health[0] != 'A';
    throw Failure(
        kFailed,
        source ? fmt::format("the point can no longer be read, or {} not be written", overlay())
               : wish_.target + " cannot be written",
        fmt::format("look at `dmesg`, and for room; what was written since is in {}: unmount {}, "
                    "`dmsetup remove {}`, `qemu-nbd --disconnect {}`, and run this again",
                    overlay(), device(), wish_.name, source_));
  }
  return state.all ? 100.0 * static_cast<double>(state.done) / static_cast<double>(state.all) : 0;
}

// The mark is written while nothing can be written through the mirror: whatever is in the overlay then is
// in the target too, and on its disk.
void Instant::complete() {
  sync_file(wish_.target);  // most of it before anybody has to wait
  try {
    dmsetup({"suspend", wish_.name});
    if (percent() < 100) {
      throw Failure(kFailed, device() + " is not copied to its end", "run this again");
    }
    sync_file(wish_.target);
    replace_file(mark(), to_text({lasting_name_of(wish_.target), image()}));
  } catch (...) {
    bring_back();
    throw;
  }
  stage_ = Stage::Copied;
}

void Instant::switch_over() {
  try {
    dmsetup(
        {"load", wish_.name, "--table", fmt::format("0 {} linear {} 0", sectors(), wish_.target)});
    dmsetup({"resume", wish_.name});
  } catch (...) {
    bring_back();
    throw;
  }
  look();
  if (stage_ == Stage::Switched) return;
  throw Failure(kFailed, device() + " did not become " + wish_.target, "run this again");
}

// In use again, as what it is now.
void Instant::bring_on() {
  if (stage_ == Stage::Copying || stage_ == Stage::Copied) {
    drop_mark();
    dmsetup({"clear", wish_.name});  // what was loaded must not come with the resumption
    stage_ = Stage::Copying;
  }
  if (suspended_) dmsetup({"resume", wish_.name});
  suspended_ = false;
}

void Instant::bring_back() noexcept {
  try {
    look();  // a program that failed may have done its work all the same
    bring_on();
  } catch (const std::exception&) {
    // The next one who takes over tries it again. A mark that cannot be taken away must not see
    // another write through the mirror.
  }
}

void Instant::clean_up() {
  const std::string chain = folder_of(image());  // while there is something that tells it
  sync_file(wish_.target);                       // only what it keeps makes the overlay superfluous
  if (source_.empty()) source_ = server_of(overlay());
  if (!source_.empty()) end_server(source_);
  source_.clear();
  remove_file(overlay());
  sync_directory(wish_.scratch);  // the overlay first: it may be older than the target by now
  release_chain(chain, wish_.name);
  remove_file(mark());
}

void Instant::finish() {
  if (stage_ == Stage::Copying) complete();
  if (stage_ == Stage::Copied) switch_over();
  clean_up();
}

}  // namespace snbf
