// SPDX-License-Identifier: GPL-2.0-only
#include "destination.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

#include "failure.h"
#include "files.h"
#include "sizes.h"
#include "store_nbd.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

const Point* find_point(const Manifest& manifest, const std::string& wanted) {
  if (wanted.empty()) return manifest.newest();
  for (const Point& point : manifest.points) {
    if (wanted == std::to_string(point.id) || wanted == point.file) return &point;
  }
  return nullptr;
}

}  // namespace

ChosenPoint choose_point(const std::string& text) {
  if (is_nbd_uri(text)) {
    throw Failure(kMisused,
                  fmt::format("{} is a server's disk: it holds the newest point as it is", text),
                  fmt::format("`nbdcopy '{}' DEVICE` copies it back", text));
  }
  ChosenPoint chosen;
  std::string wanted;
  chosen.destination = text;
  const size_t at = text.rfind('@');
  if (!fs::exists(manifest_path(text)) && at != std::string::npos) {
    chosen.destination = text.substr(0, at);
    wanted = text.substr(at + 1);
  }
  if (chosen.destination.empty()) {
    throw Failure(kMisused, "no destination is named",
                  "give the destination: the directory that `snbf backup` wrote to");
  }
  chosen.destination = fs::absolute(chosen.destination).lexically_normal();
  auto manifest = read_manifest(chosen.destination);
  if (!manifest) {
    throw Failure(kFailed, fmt::format("{} holds no backup", chosen.destination),
                  "give the directory that `snbf backup` wrote to");
  }
  if (manifest->points.empty()) {
    throw Failure(
        kFailed, fmt::format("{} has no point: its first backup was not ended", chosen.destination),
        "back up again: `snbf backup` makes the first one anew");
  }
  const Point* point = find_point(*manifest, wanted);
  if (!point) {
    throw Failure(kFailed, fmt::format("{} has no point {}", chosen.destination, wanted),
                  "`snbf verify DEST` lists the points");
  }
  chosen.point = *point;
  chosen.manifest = std::move(*manifest);
  return chosen;
}

Json point_json(const Point& point) {
  return {{"point", point.id},
          {"level", level_name(point.level)},
          {"parent", point.parent ? Json(*point.parent) : Json(nullptr)},
          {"full_because", point.why},
          {"detail", point.detail},
          {"created", show_time(point.created)},
          {"exact", point.exact()},
          {"source", point.source},
          {"extents", point.extents},
          {"copied_bytes", point.bytes},
          {"data_bytes", point.data_bytes},
          {"moved_bytes", point.moved_bytes},
          {"skipped_extents", point.skipped_extents},
          {"skipped_bytes", point.skipped_bytes},
          {"skipped_file", point.skipped_file},
          {"whole_because", point.whole_because},
          {"frozen_ms", point.frozen_ms},
          {"seconds", point.seconds},
          {"file", point.file},
          {"file_bytes", point.file_bytes}};
}

Table point_table(const char* last) {
  return Table({{"POINT", true},
                {"LEVEL"},
                {"PARENT", true},
                {"CREATED"},
                {"COPIED", true},
                {"FILE SIZE", true},
                {last}});
}

std::vector<std::string> point_cells(const Point& point, const std::string& last) {
  return {std::to_string(point.id),
          level_name(point.level),
          point.parent ? std::to_string(*point.parent) : "-",
          show_time(point.created),
          show_size(point.bytes),
          show_size(point.file_bytes),
          last};
}

namespace {

constexpr size_t kLookedAtBytes = 1 << 20;

// What no tool knows may still be somebody's data.
bool starts_and_ends_with_zeros(const std::string& path) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const off_t size = file ? ::lseek(file.get(), 0, SEEK_END) : -1;
  if (size < 0) return false;
  std::vector<char> piece(kLookedAtBytes);
  for (const off_t at : {off_t{0}, std::max<off_t>(0, size - static_cast<off_t>(piece.size()))}) {
    const ssize_t n = ::pread(file.get(), piece.data(), piece.size(), at);
    if (n < 0) return false;
    if (std::any_of(piece.begin(), piece.begin() + n, [](char byte) { return byte != 0; }))
      return false;
  }
  return true;
}

// The library opens a device that it is given by name twice, and closes it once (2.38): a snap
// whose file system was looked at could not be deleted any more.
class OpenProbe {
 public:
  explicit OpenProbe(const std::string& path)
      : file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), probe_(nullptr, blkid_free_probe) {
    if (!file_) return;
    probe_.reset(blkid_new_probe());
    if (probe_ && blkid_probe_set_device(probe_.get(), file_.get(), 0, 0) != 0) probe_.reset();
  }
  blkid_probe get() const { return probe_.get(); }
  explicit operator bool() const { return probe_ != nullptr; }

 private:
  UniqueFd file_;
  std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe_;
};

}  // namespace

std::string contents_of(const std::string& path) {
  const OpenProbe probe(path);
  if (!probe) return "something that cannot be read";
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL);
  blkid_probe_enable_partitions(probe.get(), 1);
  if (blkid_do_safeprobe(probe.get()) == 1) {
    return starts_and_ends_with_zeros(path) ? "" : "data of an unknown kind";
  }
  const char* value = nullptr;
  std::string text = "something that is not recognised for certain";
  if (blkid_probe_lookup_value(probe.get(), "TYPE", &value, nullptr) == 0) {
    text = value;
  } else if (blkid_probe_lookup_value(probe.get(), "PTTYPE", &value, nullptr) == 0) {
    text = fmt::format("a partition table ({})", value);
  }
  if (blkid_probe_lookup_value(probe.get(), "LABEL", &value, nullptr) == 0) {
    text += fmt::format(", labelled {}", value);
  }
  return text;
}

namespace {

// A field of a file system that is recognised for certain, or empty.
std::string file_system_field(const std::string& path, const char* field) {
  const OpenProbe probe(path);
  if (!probe) return "";
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(
      probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE | BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL);
  const char* usage = nullptr;
  const char* value = nullptr;
  const bool found = blkid_do_safeprobe(probe.get()) == 0 &&
                     blkid_probe_lookup_value(probe.get(), "USAGE", &usage, nullptr) == 0 &&
                     blkid_probe_lookup_value(probe.get(), field, &value, nullptr) == 0;
  return found && std::string(usage) == "filesystem" ? value : "";
}

}  // namespace

std::string file_system_of(const std::string& path) { return file_system_field(path, "TYPE"); }

std::string uuid_of(const std::string& path) { return file_system_field(path, "UUID"); }

std::string label_of(const std::string& path) { return file_system_field(path, "LABEL"); }

std::string readers_lock(const std::string& destination) { return destination + "/.reading"; }

namespace {

UniqueFd hold_for_reading(const std::string& destination) {
  const std::string path = readers_lock(destination);
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file || ::flock(file.get(), LOCK_SH | LOCK_NB) == 0) return file;
  throw Failure(kBusy, destination + ": points are being taken away here", "wait until it is done");
}

}  // namespace

HeldPoint hold_point(const std::string& text) {
  HeldPoint held{choose_point(text), {}};
  held.lock = hold_for_reading(held.chosen.destination);
  held.chosen = choose_point(text);  // the manifest may have been another one until now
  return held;
}

}  // namespace snbf
