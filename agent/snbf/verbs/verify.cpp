// SPDX-License-Identifier: GPL-2.0-only
// snbf verify: the points of a destination, and whether their files are what was written.
#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>

#include "command.h"
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
  Manifest alone = at.manifest;
  Point single = point;
  single.parent.reset();
  alone.points = {single};
  std::string damage = chain_damage(alone, single, at.destination, true);
  if (damage.empty()) damage = skipped_damage(point, at.destination);
  if (!damage.empty() || !deep) return damage;
  const Ran ran =
      run({"qemu-img", "check", "-q", "-f", "qcow2", at.destination + "/" + point.file});
  return ran.status == 0 ? "" : fmt::format("qemu-img check finds it damaged: {}", ran.errors);
}

std::string device_for(const std::string& text) {
  if (device_of(text) != 0) return text;
  const std::string node_or_snap = "/dev/snbf/" + text;
  if (text.find('/') == std::string::npos && device_of(node_or_snap) != 0) return node_or_snap;
  throw Failure(kMisused, text + " is not a block device",
                "give a device file, or the name of a node or a snap");
}

// A point holds what the device had, but for what it left out because that was free.
int compare(const Options& options) {
  const ChosenPoint at = choose_point(options.destination);
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

int verify(const Options& options) {
  if (!options.against.empty()) return compare(options);
  const ChosenPoint at = choose_point(options.destination);
  Table table = point_table("STATE");
  Json points = Json::array();
  bool sound = true;
  for (const Point& point : at.manifest.points) {
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
  if (options.json) {
    print_json({{"destination", at.destination},
                {"node", at.manifest.node},
                {"size", at.manifest.size},
                {"sound", sound},
                {"points", points}});
  } else {
    table.print(true);
  }
  if (!sound) note("a damaged file spoils its point and every later one that stands on it");
  return sound ? kDone : kDiffers;
}

}  // namespace

void add_verify(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add_verb(app, chosen, "verify", "List the points of a chain and check their files",
               "Examples:\n  snbf verify /backups/data --deep\n"
               "  snbf verify /backups/data@2 --against monday\n"
               "With --against, one point is compared with a device instead, but for what was free "
               "when the\npoint was made.",
               options, verify);
  verb->add_option("dest", options->destination, "Directory of the chain; DEST@POINT for --against")
      ->required();
  verb->add_option("--against", options->against,
                   "Compare the point with this node, snap or device");
  verb->add_flag("--deep", options->deep, "Check the structure of each image as well");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
