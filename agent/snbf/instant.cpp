// SPDX-License-Identifier: GPL-2.0-only
#include "instant.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <vector>

#include "failure.h"
#include "files.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

constexpr int kRegionSectors = 1024;
constexpr unsigned kNbdMajor = 43;
constexpr auto kStep = std::chrono::milliseconds(50);
constexpr int kSteps = 600;

std::vector<std::string> words_of(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

Failure missing(const std::string& program, const char* package) {
  return {kFailed, program + " could not be started",
          fmt::format("install the package {}", package)};
}

std::string run_of(const char* package, const std::vector<std::string>& arguments) {
  const Ran ran = run(arguments);
  if (ran.status == 127) throw missing(arguments[0], package);
  if (ran.status != 0) {
    std::string why = ran.errors;
    why.erase(why.find_last_not_of(" \n") + 1);
    throw Failure(kFailed, fmt::format("{}: {}", arguments[0], why), "look at `dmesg`");
  }
  return ran.output;
}

std::string dmsetup(const std::vector<std::string>& words) {
  std::vector<std::string> arguments = {"dmsetup"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  return run_of("dmsetup", arguments);
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

bool device_is(const std::string& numbers, const std::string& path) {
  struct stat about;
  if (::stat(path.c_str(), &about) < 0) throw failure_of(-errno, "looking at " + path);
  return numbers == fmt::format("{}:{}", major(about.st_rdev), minor(about.st_rdev));
}

bool is_nbd(const std::string& numbers) {
  return numbers.rfind(fmt::format("{}:", kNbdMajor), 0) == 0;
}

uint64_t size_of_nbd(int number) {
  std::string text;
  read_file(fmt::format("/sys/block/nbd{}/size", number), &text);
  return text.empty() ? 0 : std::stoull(text);
}

bool nbd_is_free(int number) {
  return fs::exists(fmt::format("/sys/block/nbd{}", number)) &&
         !fs::exists(fmt::format("/sys/block/nbd{}/pid", number)) && size_of_nbd(number) == 0;
}

std::string backing_of(const std::string& image) {
  const auto about = nlohmann::json::parse(
      run_of("qemu-utils", {"qemu-img", "info", "-U", "--output=json", image}));
  return about.value("full-backing-filename", "");
}

}  // namespace

MirrorState mirror_state_of(const std::string& status) {
  const auto words = words_of(status);
  const size_t slash = words.size() > 8 ? words[6].find('/') : std::string::npos;
  if (slash == std::string::npos || words[2] != "mirror") {
    throw Failure(kFailed, "dmsetup speaks of no mirror: " + status, "look at `dmsetup status`");
  }
  return {std::stoull(words[6]), std::stoull(words[6].substr(slash + 1)), words[8]};
}

Instant::Instant(InstantWish wish) : wish_(std::move(wish)) {
  check_name(wish_.name);
  look();
}

void Instant::look() {
  left_over_ = fs::exists(overlay());
  const Ran info = run({"dmsetup", "info", "-c", "--noheadings", "-o", "uuid", wish_.name});
  if (info.status == 127) throw missing("dmsetup", "dmsetup");
  if (info.status != 0) return;  // there is none of that name
  const auto uuid = words_of(info.output);
  const auto table = words_of(dmsetup({"table", wish_.name}));
  // START LENGTH mirror core COUNT REGION... LEGS SOURCE OFFSET TARGET OFFSET ...
  const auto legs = std::find_if(table.begin(), table.end(), is_nbd);
  if (uuid.empty() || uuid[0] != uuid_for(wish_.name) || table.end() - legs < 3 ||
      !device_is(legs[2], wish_.target)) {
    throw Failure(
        kBusy,
        fmt::format("{} is there already, and is no restore onto {}", device(), wish_.target),
        "choose another name, or take it away: `dmsetup remove " + wish_.name + "`");
  }
  source_ = "/dev/nbd" + legs[0].substr(legs[0].find(':') + 1);
}

void Instant::make_overlay() {
  if (left_over_) {
    if (!fs::equivalent(backing_of(overlay()), wish_.image)) {
      throw Failure(
          kUnsafe,
          overlay() + " is left from a restore of another point, with what was written to it since",
          "go on with that one, or remove the file");
    }
    return;
  }
  run_of("qemu-utils",
         {"qemu-img", "create", "-q", "-f", "qcow2", "-b", wish_.image, "-F", "qcow2", overlay()});
}

void Instant::serve() {
  if (!fs::exists("/sys/block/nbd0")) run_of("kmod", {"modprobe", "nbd"});
  for (int number = 0; fs::exists(fmt::format("/sys/block/nbd{}", number)); ++number) {
    if (!nbd_is_free(number)) continue;
    const std::string device = fmt::format("/dev/nbd{}", number);
    run_of("qemu-utils",
           {"qemu-nbd", "--connect=" + device, "--format=qcow2", "--cache=writeback",
            "--socket=/run/snbf-instant-" + wish_.name + ".sock", "--discard=ignore", overlay()});
    source_ = device;
    // It answers before the kernel knows the size.
    for (int i = 0; i < kSteps && size_of_nbd(number) < sectors(); ++i) {
      std::this_thread::sleep_for(kStep);
    }
    if (size_of_nbd(number) >= sectors()) return;
    throw Failure(kFailed, "qemu-nbd serves no disk on " + device, "look at `dmesg`");
  }
  throw Failure(kBusy, "every /dev/nbd device is in use",
                "end one: `qemu-nbd --disconnect /dev/nbdN`");
}

void Instant::begin() {
  make_overlay();
  try {
    serve();
    dmsetup({"create", wish_.name, "--uuid", uuid_for(wish_.name), "--table",
             fmt::format("0 {} mirror core 1 {} 2 {} 0 {} 0 1 handle_errors", sectors(),
                         kRegionSectors, source_, wish_.target)});
  } catch (...) {
    if (!source_.empty()) run({"qemu-nbd", "--disconnect", source_});
    source_.clear();
    if (!left_over_) remove_file(overlay());
    throw;
  }
}

double Instant::percent() const {
  const MirrorState state = mirror_state_of(dmsetup({"status", wish_.name}));
  if (state.health.find_first_not_of('A') != std::string::npos) {
    const bool source = state.health[0] != 'A';
    throw Failure(
        kFailed, source ? "the point can no longer be read" : wish_.target + " cannot be written",
        fmt::format(
            "look at `dmesg`; what was written since is in {}: unmount {}, `dmsetup remove {}`, "
            "`qemu-nbd --disconnect {}`, and run this again",
            overlay(), device(), wish_.name, source_));
  }
  return state.all ? 100.0 * static_cast<double>(state.done) / static_cast<double>(state.all) : 0;
}

void Instant::finish() {
  dmsetup({"suspend", wish_.name});
  try {
    dmsetup(
        {"load", wish_.name, "--table", fmt::format("0 {} linear {} 0", sectors(), wish_.target)});
  } catch (...) {
    run({"dmsetup", "resume", wish_.name});
    throw;
  }
  dmsetup({"resume", wish_.name});
  // Only what the target keeps makes the overlay superfluous.
  sync_file(wish_.target);
  run_of("qemu-utils", {"qemu-nbd", "--disconnect", source_});
  source_.clear();
  remove_file(overlay());
}

}  // namespace snbf
