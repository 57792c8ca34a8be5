// SPDX-License-Identifier: GPL-2.0-only
// snbf verify: the points of a destination, and whether their files are what was written.
#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>

#include "command.h"
#include "deep.h"
#include "destination.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "image.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "skipped.h"

namespace snbf {

namespace {

struct Options {
  std::string destination;
  std::string against;
  bool deep = false;
  bool json = false;
};

// The file alone; what lies below it is judged with its own point.
std::string damage_of(const ChosenPoint& at, const Point& point, bool deep) {
  if (at.manifest.lineage(point).empty()) return "an earlier point is not in the manifest";
  std::string damage = file_damage(at.manifest, point, at.destination, true);
  if (damage.empty()) damage = skipped_damage(point, at.destination);
  if (!damage.empty() || !deep) return damage;
  return image_damage(at.manifest, point, at.destination);
}

// The chosen point as a whole, once every file that it stands on is sound.
struct Whole {
  std::string damage;
  uint64_t read_bytes = 0;
  FileSystemFinding file_system;
};

Whole look_through(const ChosenPoint& at) {
  Whole whole;
  Progress progress("reading", at.manifest.size);
  whole.damage = reading_damage(at.manifest, at.point, at.destination, [&](uint64_t bytes) {
    whole.read_bytes += bytes;
    progress.add(bytes);
  });
  if (!whole.damage.empty()) return whole;
  whole.file_system = check_file_system(at.manifest, at.point, at.destination);
  whole.damage = whole.file_system.damage;
  return whole;
}

void tell_whole(const ChosenPoint& at, const Whole& whole) {
  if (whole.damage.empty()) {
    note(fmt::format("point {} can be read whole: {}", at.point.id, show_size(whole.read_bytes)));
  } else {
    note(fmt::format("point {}: {}", at.point.id, whole.damage));
  }
  const FileSystemFinding& found = whole.file_system;
  if (!found.checked.empty() && found.damage.empty()) {
    note(fmt::format("its {} is sound, says {}", found.type, found.checked));
  }
  if (!found.not_checked.empty()) {
    note(fmt::format("its {} was not checked: {}", found.type.empty() ? "file system" : found.type,
                     found.not_checked));
  }
}

Json whole_json(const ChosenPoint& at, const Whole& whole) {
  return {{"point", at.point.id},
          {"damage", whole.damage},
          {"read_bytes", whole.read_bytes},
          {"file_system", whole.file_system.type},
          {"file_system_checked_by", whole.file_system.checked},
          {"file_system_not_checked_because", whole.file_system.not_checked}};
}

std::string device_for(const std::string& text) {
  if (device_of(text) != 0) return text;
  const std::string node_or_snap = "/dev/snbf/" + text;
  if (text.find('/') == std::string::npos && device_of(node_or_snap) != 0) return node_or_snap;
  throw Failure(kMisused, text + " is not a block device",
                "give a device file, or the name of a node or a snap");
}

// A point holds what the device had, but for what it left out because that was free.
int compare(const ChosenPoint& at, const Options& options) {
  const std::string damage = chain_damage(at.manifest, at.point, at.destination, options.deep);
  if (!damage.empty()) {
    throw Failure(kDiffers,
                  fmt::format("the chain below point {} is broken: {}", at.point.id, damage),
                  "choose an earlier point with DEST@POINT");
  }
  const std::string device = device_for(options.against);
  const UniqueFd file(::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT));
  if (!file) throw failure_of(-errno, "opening " + device);
  const Extents skipped = load_skipped(at.manifest, at.point, at.destination);
  Extents held = blank_extents(at.manifest);
  held.set_all();
  held.subtract(skipped);
  ImageReader image(at.destination + "/" + at.point.file);
  Progress progress("comparing", held.covered_bytes());
  const Extents different = compare_extents(file.get(), held, &image,
                                            [&progress](uint64_t bytes) { progress.add(bytes); });
  const auto runs = different.runs();
  if (options.json) {
    print_json({{"point", at.point.id},
                {"device", device},
                {"equal", runs.empty()},
                {"compared_bytes", held.covered_bytes()},
                {"skipped_bytes", skipped.covered_bytes()},
                {"different_extents", different.count()},
                {"first_difference",
                 runs.empty() ? Json(nullptr) : Json(different.range_of(runs.front()).offset)}});
  } else {
    fmt::print("point {} and {}: {} in {} compared{}\n", at.point.id, device,
               runs.empty()
                   ? "no difference"
                   : fmt::format("{} extents differ, the first at byte {},", different.count(),
                                 different.range_of(runs.front()).offset),
               show_size(held.covered_bytes()),
               skipped.none() ? ""
                              : fmt::format("; {} was free and is not in the point",
                                            show_size(skipped.covered_bytes())));
  }
  return runs.empty() ? kDone : kDiffers;
}

// Whether all that the point stands on is sound. `points` are as verify() prints them.
bool stands_on_sound_files(const ChosenPoint& at, const Json& points) {
  for (const Point* step : at.manifest.lineage(at.point)) {
    for (const Json& point : points) {
      if (point.at("point") == step->id && point.at("damage") != "") return false;
    }
  }
  return true;
}

int verify(const Options& options) {
  const HeldPoint held = hold_point(options.destination);
  const ChosenPoint& at = held.chosen;
  if (!options.against.empty()) return compare(at, options);
  Table table = point_table("STATE");
  Json points = Json::array();
  bool sound = true;
  for (const Point& point : at.manifest.points) {
    // It is no point any more.
    if (at.manifest.merge && at.manifest.merge->from == point.id) continue;
    const std::string damage = damage_of(at, point, options.deep);
    sound = sound && damage.empty();
    const std::string state = !damage.empty() ? damage
                              : point.exact() ? "good"
                                              : "good, not of one moment";
    table.add(point_cells(point, state));
    Json json = point_json(point);
    json["damage"] = damage;
    points.push_back(json);
  }
  if (!options.json) table.print(true);
  if (at.manifest.merge) {
    note(fmt::format("a prune was cut off: `snbf prune {}` finishes it", at.destination));
  }
  if (!sound) note("a damaged file spoils its point and every later one that stands on it");
  Json json = {
      {"destination", at.destination}, {"node", at.manifest.node}, {"size", at.manifest.size}};
  if (options.deep && stands_on_sound_files(at, points)) {
    const Whole whole = look_through(at);
    sound = sound && whole.damage.empty();
    if (!options.json) tell_whole(at, whole);
    json["deep"] = whole_json(at, whole);
  }
  json["sound"] = sound;
  json["points"] = points;
  if (options.json) print_json(json);
  return sound ? kDone : kDiffers;
}

}  // namespace

void add_verify(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add_verb(app, chosen, "verify", "List the points of a chain and check their files",
               "Examples:\n  snbf verify /backups/data --deep\n"
               "  snbf verify /backups/data@2 --against monday\n"
               "With --deep, each image is opened and checked, and must stand on its parent's;\n"
               "DEST@POINT, or the newest point, is read whole, and its file system checked on an\n"
               "overlay (ext2, ext3, ext4, XFS).\n"
               "With --against, one point is compared with a device instead, but for what was free "
               "when the\npoint was made.",
               options, verify);
  verb->add_option("dest", options->destination, "Directory of the chain, or DEST@POINT")
      ->required();
  verb->add_option("--against", options->against,
                   "Compare the point with this node, snap or device");
  verb->add_flag("--deep", options->deep,
                 "Check each image, its chain, its bytes and its file system");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
