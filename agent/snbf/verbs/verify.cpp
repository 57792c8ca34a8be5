// SPDX-License-Identifier: GPL-2.0-only
// snbf verify: the points of a destination, and whether their files are what was written.
#include <fmt/format.h>

#include "command.h"
#include "destination.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"

namespace snbf {

namespace {

struct Options {
  std::string destination;
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
  const std::string damage = chain_damage(alone, single, at.destination, true);
  if (!damage.empty() || !deep) return damage;
  const Ran ran =
      run({"qemu-img", "check", "-q", "-f", "qcow2", at.destination + "/" + point.file});
  return ran.status == 0 ? "" : fmt::format("qemu-img check finds it damaged: {}", ran.errors);
}

int verify(const Options& options) {
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
               "Example:\n  snbf verify /backups/data --deep", options, verify);
  verb->add_option("dest", options->destination, "Directory of the chain")->required();
  verb->add_flag("--deep", options->deep, "Check the structure of each image as well");
  verb->add_flag("--json", options->json, "Print JSON");
}

}  // namespace snbf
