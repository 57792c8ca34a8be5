// SPDX-License-Identifier: GPL-2.0-only
#include "instant_state.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <vector>

#include "failure.h"
#include "output.h"
#include "words.h"

namespace snbf {

namespace {

bool is_device(const std::string& word) {
  const size_t colon = word.find(':');
  return colon != std::string::npos && colon > 0 && colon + 1 < word.size() &&
         word.find_first_not_of("0123456789:") == std::string::npos;
}

bool is_number(const std::string& word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
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

LiveTable live_table_of(const std::string& text) {
  const auto words = words_of(text);
  LiveTable table;
  if (words.size() < 5 || !is_number(words[1])) return table;
  table.sectors = std::stoull(words[1]);
  // START LENGTH mirror LOG COUNT ARGUMENT... LEGS SOURCE OFFSET TARGET OFFSET ...
  const auto source = std::find_if(words.begin(), words.end(), is_device);
  if (words[2] == "mirror" && words.end() - source > 3 && is_device(source[2])) {
    table.kind = LiveTable::Kind::Mirror;
    table.source = source[0];
    table.target = source[2];
  }
  // START LENGTH linear TARGET OFFSET
  if (words[2] == "linear" && is_device(words[3]) && words[4] == "0") {
    table.kind = LiveTable::Kind::Linear;
    table.target = words[3];
  }
  return table;
}

std::string to_text(const Mark& mark) {
  return Json({{"target", mark.target}, {"image", mark.image}}).dump() + "\n";
}

Mark parse_mark(const std::string& text, const std::string& path) {
  Json json = Json::parse(text, nullptr, false);
  if (!json.is_object() || !json["target"].is_string() || !json["image"].is_string()) {
    throw Failure(kFailed, path + " is no mark of a restore", "take it away");
  }
  return {json["target"], json["image"]};
}

Stage stage_of(const Remains& remains) {
  using Kind = LiveTable::Kind;
  if (remains.device == Kind::Mirror) {
    // Without a suspension writes go on behind the mark, and one of the legs may have failed since.
    return remains.mark && remains.suspended ? Stage::Copied : Stage::Copying;
  }
  if (remains.device == Kind::Linear) {
    return remains.mark || remains.overlay ? Stage::Switched : Stage::Over;
  }
  if (remains.mark) return Stage::Whole;
  return remains.overlay ? Stage::LeftOver : Stage::None;
}

}  // namespace snbf
