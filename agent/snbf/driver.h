// SPDX-License-Identifier: GPL-2.0-only
// The driver through libsnbf, in the tool's own types; refusals become Failures.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "extents.h"
#include "libsnbf.h"
#include "output.h"

namespace snbf {

class Driver {
 public:
  explicit Driver(const libsnbf_options* options = nullptr);

  libsnbf* get() const { return handle_.get(); }

  // All filter nodes, by minor; the driver's list knows of at most 256.
  std::vector<snbf_info> filters() const;
  // By name, minor, "snbf<minor>", device file or partition.
  snbf_info find(const std::string& text) const;
  snbf_info info(uint32_t minor) const;

  Extents empty_bitmap(const snbf_info& node) const;
  Extents get(const snbf_info& node, uint32_t type) const;
  Extents get_and_clear(const snbf_info& node, uint32_t type) const;
  void merge(const snbf_info& node, uint32_t type, const Extents& extents) const;
  void set(const snbf_info& node, uint32_t type, const Extents& extents) const;
  void set_all(const snbf_info& node, uint32_t type) const;
  bool unsaved(const snbf_info& node, uint32_t type) const;

  // The started snap's map of used chunks, one bit for `unit` bytes: at least a chunk, a power of
  // two.
  std::vector<uint8_t> used_map(const snbf_info& snap, uint32_t unit, uint64_t units) const;

  // Whether `path` lies on the node or on anything below it.
  bool lies_on(const std::string& path, const snbf_info& node) const;

 private:
  struct Close {
    void operator()(libsnbf* handle) const { libsnbf_close(handle); }
  };
  std::unique_ptr<libsnbf, Close> handle_;
};

std::string node_path(const snbf_info& node);
// As every verb prints a filter node in JSON; a verb adds its own keys.
Json node_json(const snbf_info& node);
std::string bmp_dir_of(const snbf_info& node);
// Of the partition that the node holds, as the driver has it: its path may name another disk by
// now. 0 if unknown.
dev_t partition_of(const snbf_info& node);
// Of the node's own block device; 0 while it has no device file.
dev_t device_of(const std::string& path);

// The state record of a node; a blank one when there is none.
libsnbf_state read_state(const snbf_info& node);
void write_state(const snbf_info& node, const libsnbf_state& state);

const char* bitmap_name(uint32_t type);
// "incr" or "diff"; throws kMisused.
uint32_t parse_bitmap(const std::string& text);

// Where the file system on the device is mounted, as far as our namespace shows it.
std::vector<std::string> mounts_of(dev_t device);

// Who keeps a block device busy, as far as can be seen: "mounted at /srv", "open in dd (4711)".
std::vector<std::string> holders_of(dev_t device);

}  // namespace snbf
