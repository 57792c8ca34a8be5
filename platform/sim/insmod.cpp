// What a kernel does around a module's own start and end.
#include "kernel.h"

namespace snbf::sim {

int Sim::load_module() {
  Kernel& k = enter_sleeping("load_module");
  if (k.driver_loaded) return -EEXIST;
  k.module_going = false;
  int error;
  {
    InDriver in_driver(k);
    error = k.entries.init();
  }
  if (error > 0) k.fatal("the load answers %d", error);
  if (error != 0) {
    check_nothing_left("after a load that failed");
    return error;
  }
  k.driver_loaded = true;
  return 0;
}

int Sim::unload_driver() {
  Kernel& k = enter_sleeping("unload_driver");
  if (!k.driver_loaded) return -ENOENT;
  if (k.module_refs > 0) return -EWOULDBLOCK;
  k.module_going = true;
  {
    InDriver in_driver(k);
    k.entries.unload();
  }
  k.driver_loaded = false;
  check_nothing_left("after the unload");
  return 0;
}

bool Sim::driver_loaded() const { return kernel_->driver_loaded; }
int Sim::module_references() const { return kernel_->module_refs; }
void Sim::set_module_going(bool going) { kernel_->module_going = going; }

}  // namespace snbf::sim
