// SPDX-License-Identifier: GPL-2.0-only
#include "version.h"

#include <fmt/format.h>

#include <fstream>

namespace snbf {

std::string tool_version() { return "0.1.0"; }

LoadedDriver loaded_driver() {
  LoadedDriver driver;
  driver.loaded = std::ifstream("/proc/snbf/blk_major").good();
  std::ifstream file("/sys/module/snbf/version");
  if (driver.loaded) std::getline(file, driver.version);
  return driver;
}

std::string driver_text(const LoadedDriver& driver) {
  if (!driver.loaded) return "not loaded";
  return driver.version.empty() ? "loaded" : driver.version;
}

std::string version_text() {
  return fmt::format("snbf {}\ndriver {}", tool_version(), driver_text(loaded_driver()));
}

}  // namespace snbf
