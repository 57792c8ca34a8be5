// SPDX-License-Identifier: GPL-2.0-only
#include "held_chain.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>

#include "failure.h"
#include "files.h"

namespace snbf {

namespace {

constexpr std::string_view kPrefix = ".instant-";

bool is_read_only(const std::string& folder) {
  return ::access(folder.c_str(), W_OK) < 0 && errno == EROFS;
}

}  // namespace

std::string hold_file(const std::string& destination, const std::string& name) {
  return fmt::format("{}/{}{}", destination, kPrefix, name);
}

void hold_chain(const std::string& destination, const std::string& name) {
  if (is_read_only(destination)) return;
  const std::string path = hold_file(destination, name);
  if (!UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))) {
    throw failure_of(-errno, "writing " + path);
  }
  sync_directory(destination);
}

void release_chain(const std::string& destination, const std::string& name) {
  if (!is_read_only(destination)) remove_file(hold_file(destination, name));
}

std::vector<std::string> holders_of_chain(const std::string& destination) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(destination)) {
    const std::string file = entry.path().filename();
    if (file.rfind(kPrefix, 0) == 0) names.push_back(file.substr(kPrefix.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace snbf
