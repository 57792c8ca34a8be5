// A new boot finds the driver's variables as they are after loading a fresh module.
#pragma once

namespace snbf::sim {

// Where the linker has put the driver's variables together (driver_data.ld) they get their first
// values back.
void reset_driver_data();
bool can_reset_driver_data();

}  // namespace snbf::sim
