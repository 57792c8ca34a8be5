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

// 1: every point holds all of the device. 2: a point may leave out what was free, and what it stands
// on is not enough to make one on top of it; or the points lie on a target. A program that knows
// format 1 alone must not read those.
constexpr int kFormatWhole = 1;
constexpr int kFormat = 2;

int format_of(const Manifest& manifest) {
  const bool skips = std::any_of(manifest.points.begin(), manifest.points.end(),
                                 [](const Point& point) { return !point.skipped_file.empty(); });
  return skips || manifest.merge || !manifest.target.empty() ? kFormat : kFormatWhole;
}

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
          {"merged_from", point.merged_from ? Json(point.merged_from) : Json(nullptr)},
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
  if (json.contains("merged_from") && !json.at("merged_from").is_null()) {
    point.merged_from = json.at("merged_from");
  }
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
  Json json = {{"snbf_manifest", format_of(manifest)},
               {"chain", manifest.chain},
               {"node", {{"name", manifest.node}, {"uuid", manifest.node_uuid}}},
               {"partition", manifest.partition},
               {"size", manifest.size},
               {"extent_size", manifest.extent_size},
               {"points", points}};
  if (manifest.merge) {
    json["merge"] = {{"from", manifest.merge->from},
                     {"into", manifest.merge->into},
                     {"xxh3_128", manifest.merge->hash},
                     {"file_bytes", manifest.merge->file_bytes}};
  }
  if (!manifest.garbage.empty()) json["garbage"] = manifest.garbage;
  if (!manifest.target.empty()) {
    Json samples = Json::array();
    for (const Sample& sample : manifest.samples) samples.push_back({sample.extent, sample.hash});
    json["target"] = manifest.target;
    json["unfinished"] = manifest.unfinished;
    json["samples"] = samples;
  }
  // Only its sentences and the server's URI may hold other bytes than UTF-8; nobody looks them up.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Manifest manifest_from_json(const std::string& text, const std::string& path) {
  try {
    const Json json = Json::parse(text);
    const int format = json.at("snbf_manifest");
    if (format != kFormatWhole && format != kFormat) {
      throw Failure(
          kFailed,
          fmt::format("{} is of format {}, which this program does not know", path, format),
          "use a newer snbf");
    }
    Manifest manifest;
    manifest.chain = json.at("chain");
    manifest.node = json.at("node").at("name");
    manifest.node_uuid = json.at("node").at("uuid");
    manifest.partition = json.value("partition", "");
    manifest.size = json.at("size");
    manifest.extent_size = json.at("extent_size");
    manifest.target = json.value("target", "");
    manifest.unfinished = json.value("unfinished", "");
    if (json.contains("merge")) {
      const Json& merge = json.at("merge");
      manifest.merge =
          Merge{merge.at("from"), merge.at("into"), merge.at("xxh3_128"), merge.at("file_bytes")};
    }
    for (const std::string file : json.value("garbage", Json::array())) {
      check_file_name(file);
      manifest.garbage.push_back(file);
    }
    for (const Json& sample : json.value("samples", Json::array())) {
      manifest.samples.push_back({sample.at(0), sample.at(1)});
    }
    for (const Json& point : json.at("points")) {
      manifest.points.push_back(point_from(point));
      const size_t n = manifest.points.size();
      if (n > 1 && manifest.points[n - 2].id >= manifest.points[n - 1].id) {
        throw std::invalid_argument("points out of order");
      }
    }
    return manifest;
  } catch (const Failure&) {
    throw;
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

namespace {

bool is_there(const std::string& path) {
  struct stat about;
  return ::stat(path.c_str(), &about) == 0;
}

bool is_merged_away(const Manifest& manifest, const Point& point) {
  return manifest.merge && manifest.merge->from == point.id;
}

// The file that a merge has made stands in the place of the later point's: the manifest alone is
// behind.
bool has_landed(const Manifest& manifest, const std::string& destination) {
  if (!manifest.merge || manifest.merge->hash.empty()) return false;
  const Point* from = manifest.find(manifest.merge->from);
  return from && !is_there(destination + "/" + from->file);
}

}  // namespace

std::string file_damage(const Manifest& manifest, const Point& point,
                        const std::string& destination, bool contents) {
  if (is_merged_away(manifest, point)) {
    return fmt::format("{} is being merged into point {}", point.file, manifest.merge->into);
  }
  Point wanted = point;
  if (has_landed(manifest, destination) && manifest.merge->into == point.id) {
    wanted.hash = manifest.merge->hash;
    wanted.file_bytes = manifest.merge->file_bytes;
  }
  const std::string path = destination + "/" + wanted.file;
  struct stat about;
  if (::stat(path.c_str(), &about) < 0) return wanted.file + " is missing";
  if (static_cast<uint64_t>(about.st_size) != wanted.file_bytes) {
    return fmt::format("{} has {} bytes instead of {}", wanted.file, about.st_size,
                       wanted.file_bytes);
  }
  if (contents && hash_file(path) != wanted.hash) return wanted.file + " is not what was written";
  return "";
}

std::string chain_damage(const Manifest& manifest, const Point& point,
                         const std::string& destination, bool contents) {
  const auto line = manifest.lineage(point);
  if (line.empty())
    return fmt::format("an earlier point that {} needs is not in the manifest", point.file);
  for (const Point* step : line) {
    // What is being merged changes, and whoever reads through it finds the same bytes.
    if (is_merged_away(manifest, *step) && step != line.back()) {
      if (is_there(destination + "/" + step->file) || has_landed(manifest, destination)) continue;
      return step->file + " is missing";
    }
    const std::string damage = file_damage(manifest, *step, destination, contents);
    if (!damage.empty()) return damage;
  }
  return "";
}

}  // namespace snbf
