// SPDX-License-Identifier: GPL-2.0-only
#include "version.h"

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

}  // namespace snbf
