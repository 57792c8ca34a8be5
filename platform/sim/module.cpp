// Loading and unloading the driver; the only file that names its entries.
#include "kernel.h"
#include "platform/entry.h"

namespace snbf::sim {

void Sim::set_entries(const Entries& entries) { kernel_->entries = entries; }

void Sim::use_driver() {
  set_entries({.init = snbf_init,
               .unload = snbf_unload,
               .char_open = snbf_char_open,
               .char_release = snbf_char_release,
               .char_read = snbf_char_read,
               .char_write = snbf_char_write,
               .char_ioctl = snbf_char_ioctl,
               .block_open = snbf_block_open,
               .block_release = snbf_block_release,
               .block_ioctl = snbf_block_ioctl,
               .make_request = snbf_make_request,
               .read_proc = snbf_read_proc,
               .write_proc = snbf_write_proc});
}

int Sim::load_driver(const DriverParams& params) {
  snbf_chr_major = params.chr_major;
  snbf_debug = params.debug;
  snbf_max_blk_minor = params.max_blk_minor;
  snbf_blk_major = params.blk_major;
  use_driver();
  return load_module();
}

}  // namespace snbf::sim
