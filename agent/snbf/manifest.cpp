// SPDX-License-Identifier: GPL-2.0-only
#include "manifest.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "files.h"
#include "sizes.h"

namespace snbf {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kFormat = 1;

Json to_json(const Point& point) {
  return {{"id", point.id},
          {"file", point.file},
          {"level", level_name(point.level)},
          {"parent", point.parent ? Json(*point.parent) : Json(nullptr)},
          {"full_because", point.why},
          {"detail", point.detail},
          {"source", point.source},
          {"exact", point.exact()},
          {"created", show_time(point.created)},
          {"created_unix", point.created},
          {"seconds", point.seconds},
          {"frozen_ms", point.frozen_ms},
          {"extents", point.extents},
          {"copied_bytes", point.bytes},
          {"data_bytes", point.data_bytes},
          {"moved_bytes", point.moved_bytes},
          {"file_bytes", point.file_bytes},
          {"xxh3_128", point.hash},
          {"skipped_extents", point.skipped_extents},
          {"skipped_bytes", point.skipped_bytes},
          {"skipped_file", point.skipped_file},
          {"skipped_xxh3_128", point.skipped_hash},
          {"whole_because", point.whole_because}};
}

Level parse_level(const std::string& text) {
  if (text == "incr") return Level::Incremental;
  if (text == "diff") return Level::Differential;
  if (text == "full") return Level::Full;
  throw std::invalid_argument("level " + text);
}

// A name is joined to the destination's path: it must not lead out of it.
void check_file_name(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
    throw std::invalid_argument("file name " + name);
  }
}

Point point_from(const Json& json) {
  Point point;
  point.id = json.at("id");
  point.file = json.at("file");
  point.level = parse_level(json.at("level"));
  if (!json.at("parent").is_null()) point.parent = json.at("parent").get<uint64_t>();
  point.why = json.value("full_because", "");
  point.detail = json.value("detail", "");
  point.source = json.value("source", "");
  point.created = json.at("created_unix");
  point.seconds = json.value("seconds", 0.0);
  point.frozen_ms = json.value("frozen_ms", uint64_t{0});
  point.extents = json.value("extents", uint64_t{0});
  point.bytes = json.value("copied_bytes", uint64_t{0});
  point.data_bytes = json.value("data_bytes", uint64_t{0});
  point.moved_bytes = json.value("moved_bytes", uint64_t{0});
  point.file_bytes = json.at("file_bytes");
  point.hash = json.at("xxh3_128");
  point.skipped_extents = json.value("skipped_extents", uint64_t{0});
  point.skipped_bytes = json.value("skipped_bytes", uint64_t{0});
  point.skipped_file = json.value("skipped_file", "");
  point.skipped_hash = json.value("skipped_xxh3_128", "");
  point.whole_because = json.value("whole_because", "");
  check_file_name(point.file);
  if (!point.skipped_file.empty()) check_file_name(point.skipped_file);
  return point;
}

}  // namespace

const char* level_name(Level level) {
  switch (level) {
    case Level::Full:
      return "full";
    case Level::Incremental:
      return "incr";
    case Level::Differential:
      return "diff";
  }
  return "?";
}

const Point* Manifest::find(uint64_t id) const {
  const auto found = std::find_if(points.begin(), points.end(),
                                  [id](const Point& point) { return point.id == id; });
  return found == points.end() ? nullptr : &*found;
}

const Point* Manifest::newest_full() const {
  const auto found = std::find_if(points.rbegin(), points.rend(),
                                  [](const Point& point) { return point.level == Level::Full; });
  return found == points.rend() ? nullptr : &*found;
}

std::vector<const Point*> Manifest::lineage(const Point& point) const {
  std::vector<const Point*> line{&point};
  while (line.back()->parent) {
    const Point* parent = find(*line.back()->parent);
    if (!parent || parent->id >= line.back()->id)
      return {};  // ids rise, so no ring can be followed
    line.push_back(parent);
  }
  std::reverse(line.begin(), line.end());
  return line;
}

std::string manifest_path(const std::string& destination) { return destination + "/manifest.json"; }

std::string to_json_text(const Manifest& manifest) {
  Json points = Json::array();
  for (const Point& point : manifest.points) points.push_back(to_json(point));
  const Json json = {{"snbf_manifest", kFormat},
                     {"chain", manifest.chain},
                     {"node", {{"name", manifest.node}, {"uuid", manifest.node_uuid}}},
                     {"partition", manifest.partition},
                     {"size", manifest.size},
                     {"extent_size", manifest.extent_size},
                     {"points", points}};
  return json.dump(2) + "\n";
}

Manifest manifest_from_json(const std::string& text, const std::string& path) {
  try {
    const Json json = Json::parse(text);
    if (json.at("snbf_manifest") != kFormat) throw std::invalid_argument("another format");
    Manifest manifest;
    manifest.chain = json.at("chain");
    manifest.node = json.at("node").at("name");
    manifest.node_uuid = json.at("node").at("uuid");
    manifest.partition = json.value("partition", "");
    manifest.size = json.at("size");
    manifest.extent_size = json.at("extent_size");
    for (const Json& point : json.at("points")) {
      manifest.points.push_back(point_from(point));
      const size_t n = manifest.points.size();
      if (n > 1 && manifest.points[n - 2].id >= manifest.points[n - 1].id) {
        throw std::invalid_argument("points out of order");
      }
    }
    return manifest;
  } catch (const std::exception& error) {
    throw Failure(kFailed, fmt::format("{} is damaged: {}", path, error.what()),
                  "restore the file from a copy, or back up to another destination");
  }
}

std::optional<Manifest> read_manifest(const std::string& destination) {
  std::string text;
  const std::string path = manifest_path(destination);
  if (!read_file(path, &text)) return std::nullopt;
  return manifest_from_json(text, path);
}

std::string point_name(const Manifest& manifest, uint64_t id) {
  return fmt::format("{}:{}", manifest.chain, id);
}

std::string chain_damage(const Manifest& manifest, const Point& point,
                         const std::string& destination, bool contents) {
  const auto line = manifest.lineage(point);
  if (line.empty())
    return fmt::format("an earlier point that {} needs is not in the manifest", point.file);
  for (const Point* step : line) {
    const std::string path = destination + "/" + step->file;
    struct stat about;
    if (::stat(path.c_str(), &about) < 0) return step->file + " is missing";
    if (static_cast<uint64_t>(about.st_size) != step->file_bytes) {
      return fmt::format("{} has {} bytes instead of {}", step->file, about.st_size,
                         step->file_bytes);
    }
    if (contents && hash_file(path) != step->hash) return step->file + " is not what was written";
  }
  return "";
}

}  // namespace snbf
