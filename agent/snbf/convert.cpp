// SPDX-License-Identifier: GPL-2.0-only
#include "convert.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "attended.h"
#include "failure.h"
#include "files.h"

namespace snbf {

namespace {

using Json = nlohmann::ordered_json;

Attendance attend(const Percent& percent, const std::function<bool()>& stop) {
  return {[percent](std::string_view text) {
            if (const auto now = percent_in(text)) percent(*now);
          },
          stop};
}

Failure refusal(const std::string& doing, const Ran& ran) {
  if (ran.status == 127) {
    return {kFailed, "qemu-img could not be started", "install the package qemu-utils"};
  }
  std::string why = ran.errors;
  why.erase(why.find_last_not_of(" \n") + 1);
  const bool full = why.find("No space left") != std::string::npos;
  return {kFailed, fmt::format("{}: {}", doing, why),
          full ? "free some space there, or choose another target"
               : "look at `dmesg` for the device that failed"};
}

// As a value among qemu-img's image options: any bytes, where its JSON takes UTF-8 alone.
std::string as_value(const std::string& path) {
  std::string value;
  for (const char byte : path) value.append(byte == ',' ? 2 : 1, byte);
  return value;
}

std::string name_of(const RawPlace& place, bool past_cache) {
  return fmt::format("driver=raw,size={},file.driver={},file.filename={}{}", place.size_bytes,
                     place.is_device ? "host_device" : "file", as_value(place.path),
                     past_cache ? ",file.cache.direct=on" : "");
}

std::string name_of(const std::string& image) {
  return "driver=qcow2,file.driver=file,file.filename=" + as_value(image);
}

bool can_be_read_past_cache(const std::string& path) {
  return static_cast<bool>(UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)));
}

void forget_cached(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file) ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
}

}  // namespace

std::optional<double> percent_in(std::string_view text) {
  const size_t close = text.rfind("/100%)");
  if (close == std::string_view::npos) return std::nullopt;
  const size_t open = text.rfind('(', close);
  if (open == std::string_view::npos) return std::nullopt;
  return std::strtod(std::string(text.substr(open + 1, close - open - 1)).c_str(), nullptr);
}

Ended write_out(const std::string& image, const RawPlace& place, const Percent& percent,
                const std::function<bool()>& stop) {
  std::vector<std::string> command = {"qemu-img", "convert", "-p", "-f", "qcow2",
                                      "-O",       "raw",     "-m", "8",  "-W"};
  if (place.is_device) command.push_back("-n");
  command.insert(command.end(), {image, place.path});
  const Ran ran = run_attended(command, attend(percent, stop));
  if (stop()) return Ended::Stopped;
  if (ran.status != 0) throw refusal("writing " + place.path, ran);
  sync_file(place.path);
  return Ended::Well;
}

Ended compare_with(const std::string& image, const RawPlace& place, const Percent& percent,
                   const std::function<bool()>& stop, std::optional<uint64_t>* difference) {
  const bool past_cache = can_be_read_past_cache(place.path);
  if (!past_cache) forget_cached(place.path);
  const Ran ran = run_attended(
      {"qemu-img", "compare", "-p", "--image-opts", name_of(image), name_of(place, past_cache)},
      attend(percent, stop));
  if (stop()) return Ended::Stopped;
  difference->reset();
  if (ran.status == 1) {
    static constexpr std::string_view kAt = "at offset ";
    const size_t at = ran.output.find(kAt);
    *difference = at == std::string::npos
                      ? 0
                      : std::strtoull(ran.output.c_str() + at + kAt.size(), nullptr, 10);
  } else if (ran.status != 0) {
    throw refusal("comparing " + place.path, ran);
  }
  return Ended::Well;
}

uint64_t data_bytes_of(const std::string& image) {
  uint64_t bytes = 0;
  for (const Json& piece :
       Json::parse(run_or_throw({"qemu-img", "map", "--output=json", "-f", "qcow2", image}))) {
    if (piece.at("data") && !piece.at("zero")) bytes += piece.at("length").get<uint64_t>();
  }
  return bytes;
}

}  // namespace snbf
