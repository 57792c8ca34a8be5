// SPDX-License-Identifier: GPL-2.0-only
#include "deep.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

#include "convert.h"
#include "destination.h"
#include "failure.h"
#include "files.h"
#include "image.h"
#include "point_view.h"

namespace snbf {

namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t kReadBytes = 1 << 20;
constexpr int kNotStarted = 127;
// Of e2fsck(8): beyond these bits something else went wrong than the file system.
constexpr int kExtErrorsLeft = 4;
constexpr int kExtDamageMax = 7;

std::string last_line(std::string text) {
  text.erase(text.find_last_not_of(" \n") + 1);
  return text.substr(text.find_last_of('\n') + 1);
}

std::string structure_damage(const Json& info, const Manifest& manifest, const Point& point) {
  if (info.value("format", "") != "qcow2") return point.file + " is no qcow2 image";
  if (info.at("virtual-size") != manifest.size) {
    return fmt::format("{} is of {} bytes instead of {}", point.file,
                       info.at("virtual-size").get<uint64_t>(), manifest.size);
  }
  const Point* parent = point.parent ? manifest.find(*point.parent) : nullptr;
  const std::string wanted = parent ? parent->file : "";
  const std::string found = info.value("backing-filename", "");
  if (found != wanted || (parent && info.value("backing-filename-format", "") != "qcow2")) {
    return fmt::format("{} stands on {} instead of {}", point.file,
                       found.empty() ? "nothing" : found, wanted.empty() ? "nothing" : wanted);
  }
  const Json specific = info.value("format-specific", Json::object()).value("data", Json::object());
  if (specific.contains("data-file")) return point.file + " has its data in another file";
  return "";
}

FileSystemFinding check_ext(const std::string& type, const std::string& path) {
  // A point that was not unmounted has a journal to be replayed first, as a mount would.
  const Ran replay = run({"e2fsck", "-y", "-E", "journal_only", path});
  if (replay.status == kNotStarted) return judge_e2fsck(type, replay.status, "");
  const Ran ran = run({"e2fsck", "-f", "-n", path});
  return judge_e2fsck(type, ran.status, ran.output + ran.errors);
}

FileSystemFinding check_xfs(const std::string& path) {
  const Ran ran = run({"xfs_repair", "-n", "-f", path});
  return judge_xfs_repair(ran.status, ran.output + ran.errors);
}

}  // namespace

std::string image_damage(const Manifest& manifest, const Point& point,
                         const std::string& destination) {
  const std::string path = destination + "/" + point.file;
  // The file alone, whatever it says it stands on: that is not opened before it is known.
  const Ran info = run({"qemu-img", "info", "--output=json", "-f", "qcow2", path});
  if (info.status != 0) return "qemu-img cannot open it: " + last_line(info.errors);
  const std::string damage = structure_damage(Json::parse(info.output), manifest, point);
  if (!damage.empty()) return damage;
  const Ran check = run({"qemu-img", "check", "-q", "-f", "qcow2", path});
  return check.status == 0 ? "" : "qemu-img check finds it damaged: " + last_line(check.errors);
}

std::string reading_damage(const Manifest& manifest, const Point& point,
                           const std::string& destination,
                           const std::function<void(uint64_t)>& progress) {
  ImageReader image(destination + "/" + point.file);
  std::vector<uint8_t> buffer(kReadBytes);
  for (uint64_t at = 0; at < manifest.size; at += kReadBytes) {
    const uint64_t length = std::min(kReadBytes, manifest.size - at);
    try {
      image.read(buffer.data(), length, at);
    } catch (const Failure& failure) {
      return fmt::format("it cannot be read at byte {}: {}", at, failure.what());
    }
    progress(length);
  }
  return "";
}

FileSystemFinding judge_e2fsck(const std::string& type, int status, const std::string& output) {
  if (status == kNotStarted) return {type, "", "e2fsck is not installed: package e2fsprogs", ""};
  if (status > kExtDamageMax) {
    return {type, "", "e2fsck could not check it: " + last_line(output), ""};
  }
  FileSystemFinding finding{type, "e2fsck", "", ""};
  if (status & kExtErrorsLeft) finding.damage = "e2fsck finds errors in its " + type;
  return finding;
}

FileSystemFinding judge_xfs_repair(int status, const std::string& output) {
  if (status == kNotStarted)
    return {"xfs", "", "xfs_repair is not installed: package xfsprogs", ""};
  // Without a replay of its log an XFS looks damaged, and only a mount replays it.
  if (output.find("metadata changes in a log") != std::string::npos) {
    return {"xfs", "", "its log is not replayed: mount a restored copy once, then check that", ""};
  }
  FileSystemFinding finding{"xfs", "xfs_repair", "", ""};
  if (status != 0) finding.damage = "xfs_repair finds errors in its xfs";
  return finding;
}

FileSystemFinding check_file_system(const Manifest& manifest, const Point& point,
                                    const std::string& destination) {
  const std::string image = destination + "/" + point.file;
  try {
    const PointView view(image, manifest.size, data_bytes_of(image));
    const std::string type = file_system_of(view.path());
    if (type.empty()) return {"", "", "no file system is recognised on it for certain", ""};
    if (!point.exact()) return {type, "", "the point is not of one moment", ""};
    if (type.rfind("ext", 0) == 0) return check_ext(type, view.path());
    if (type == "xfs") return check_xfs(view.path());
    return {type, "", "there is no check of " + type + " that writes nothing", ""};
  } catch (const Failure& failure) {
    return {"", "", failure.what(), ""};
  }
}

}  // namespace snbf
