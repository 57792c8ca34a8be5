// SPDX-License-Identifier: GPL-2.0-only
// Which tool this is, and which driver is loaded.
#pragma once

#include <string>

namespace snbf {

std::string tool_version();

struct LoadedDriver {
  bool loaded = false;
  std::string version;  // empty: it does not say
};
LoadedDriver loaded_driver();
// "1.2.3", "loaded" or "not loaded".
std::string driver_text(const LoadedDriver& driver);

// Two lines, the last without its end.
std::string version_text();

}  // namespace snbf
