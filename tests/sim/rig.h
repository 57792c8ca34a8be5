// A whole driver on the simulated kernel, with one tracked partition: what the runs by seed share.
//
//   sda1  the partition; kExtents extents of 4 KiB
//   sdb1  the store of the bitmap files, mounted at /store
#pragma once

#include <optional>

#include "bitmap_model.h"
#include "sim_test.h"
#include "snbf/protocol.h"

namespace snbf::rig {

using model::BitmapModel;
using model::Extents;
using sim::Bytes;
using sim::Sim;
using sim::u32;
using sim::u64;

constexpr u32 kExtentBytes = 4096;
constexpr u32 kExtentSectors = kExtentBytes / 512;
constexpr u64 kExtents = 200;  // not a multiple of 8 x 4: the last word and the last byte are partly used
constexpr u64 kDiskBytes = kExtents * kExtentBytes;
constexpr u32 kMapBytes = (kExtents + 7) / 8;
constexpr u32 kTypes[] = {SNBF_BMP_DIFF, SNBF_BMP_INCR};

Extents extents_of(u64 sector, u32 bytes);
Extents extents_in(const Bytes& map);
Bytes map_of(const Extents& extents);
bool all_ones(const Bytes& map);
// What of `wanted` is not in `have`.
Extents missing(const Extents& wanted, const Extents& have);
std::string show(const Extents& extents);

class Rig {
 public:
  explicit Rig(Sim& kernel) : sim(kernel) {}

  // Devices and the store. Before the run, or in a task; `fresh` false: they are there from an earlier boot.
  void make_devices(bool fresh = true);
  // In a task.
  void load(const sim::DriverParams& params = {.debug = 0});
  // Answers the minor. The node lies over sda1, or over `partition`.
  int add(const std::string& partition = "/dev/sda1", int minor = -1, const std::string& store = "/store");
  int start(int minor = 0);
  int stop(int minor = 0);
  int remove(int minor = 0);

  int get(u32 type, Extents* map, u32 command = SNBF_GET_BMP, int minor = 0);
  int clear(u32 type, int minor = 0);
  int save(u32 type, int minor = 0);
  int load_map(u32 type, int minor = 0);
  int merge(u32 type, const Extents& map, int minor = 0);
  int set(u32 type, const std::optional<Extents>& map, int minor = 0);
  int dirty(u32 type, int minor = 0);  // the field that /proc shows

  plat_devt node(int minor = 0) const { return sim::dev(100, static_cast<u32>(minor)); }

  Sim& sim;

 private:
  int map_command(u32 command, u32 type, const std::optional<Extents>& map, int minor);
};

}  // namespace snbf::rig
