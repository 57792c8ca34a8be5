// The control device, and the module as the kernel sees it.
#include "platform/control.h"

#include <cstring>

#include "proc_state.h"

using namespace snbf::sim;

extern "C" {

int snbf_plat_chrdev_register(int major, const char* name) {
  Kernel& k = enter_sleeping("chrdev_register");
  if (const int error = k.fault(Fault::ChrdevRegister, -EBUSY); error != 0) return error;
  ControlState& control = *k.control;
  if (control.registered) return -EBUSY;
  if (major < 0 || major > 511) return -EINVAL;
  control.registered = true;
  control.major = major != 0 ? major : 240;
  control.name = name;
  return major != 0 ? 0 : control.major;
}

void snbf_plat_chrdev_unregister(int major, const char* name) {
  Kernel& k = enter_sleeping("chrdev_unregister");
  ControlState& control = *k.control;
  if (!control.registered || control.major != major || control.name != name) {
    k.fatal("chrdev_unregister(%d, \"%s\"), which is not registered", major, name);
  }
  if (control.open_files > 0) k.fatal("chrdev_unregister() while the control device is open");
  control.registered = false;
}
}

namespace snbf::sim {

void Kernel::control_leftovers(std::string& text) const {
  if (control->registered) text += "  the control device\n";
}

int Sim::control_major() const {
  return kernel_->control->registered ? kernel_->control->major : -1;
}

// The kernel takes the module's reference itself before it calls the driver's open.
void* Sim::open_control(int* error) {
  Kernel& k = enter_sleeping("open_control");
  ControlState& control = *k.control;
  *error = 0;
  if (!control.registered || k.module_going) {
    *error = -ENXIO;
    return nullptr;
  }
  ++k.module_refs;
  ++control.open_files;
  control.files.push_back({true});
  void* file = &control.files.back();
  {
    InDriver in_driver(k);
    *error = k.entries.char_open(&control, file);
  }
  if (*error == 0) return file;
  --control.open_files;
  --k.module_refs;
  control.files.remove_if([file](const ControlState::File& other) { return &other == file; });
  return nullptr;
}

int Sim::control_ioctl(void* file, unsigned cmd, u64 argument) {
  Kernel& k = enter_sleeping("control_ioctl");
  InDriver in_driver(k);
  return k.entries.char_ioctl(k.control.get(), file, cmd, argument);
}

s64 Sim::control_read(void* file, u64 to_user, u64 bytes) {
  Kernel& k = enter_sleeping("control_read");
  plat_s64 position = 0;
  InDriver in_driver(k);
  return k.entries.char_read(file, to_user, bytes, &position);
}

s64 Sim::control_write(void* file, u64 from_user, u64 bytes) {
  Kernel& k = enter_sleeping("control_write");
  plat_s64 position = 0;
  InDriver in_driver(k);
  return k.entries.char_write(file, from_user, bytes, &position);
}

int Sim::close_control(void* file) {
  Kernel& k = enter_sleeping("close_control");
  {
    InDriver in_driver(k);
    k.entries.char_release(k.control.get(), file);
  }
  k.control->files.remove_if([file](const ControlState::File& other) { return &other == file; });
  --k.control->open_files;
  --k.module_refs;
  return 0;
}

int Sim::ioctl_at(unsigned cmd, u64 user_address) {
  int error = 0;
  void* file = open_control(&error);
  if (file == nullptr) return error;
  const int answer = control_ioctl(file, cmd, user_address);
  close_control(file);
  return answer;
}

int Sim::ioctl(unsigned cmd, void* record, std::size_t bytes) {
  UserBuffer buffer = user(std::span(static_cast<const u8*>(record), bytes));
  const int answer = ioctl_at(cmd, buffer.address());
  const Bytes after = buffer.bytes();
  memcpy(record, after.data(), bytes);
  buffer.unmap();
  return answer;
}

}  // namespace snbf::sim
