#include "rig.h"

#include <cstring>

namespace snbf::rig {

Extents extents_of(u64 sector, u32 bytes) {
  Extents extents;
  if (bytes < 512) return extents;
  const u64 last = (sector + bytes / 512 - 1) / kExtentSectors;
  for (u64 extent = sector / kExtentSectors; extent <= last; ++extent) extents.insert(extent);
  return extents;
}

Extents extents_in(const Bytes& map) {
  Extents extents;
  for (u64 extent = 0; extent < kExtents; ++extent) {
    if (map[extent / 8] >> extent % 8 & 1) extents.insert(extent);
  }
  return extents;
}

Bytes map_of(const Extents& extents) {
  Bytes map(kMapBytes);
  for (const u64 extent : extents) map[extent / 8] |= static_cast<sim::u8>(1 << extent % 8);
  return map;
}

bool all_ones(const Bytes& map) {
  for (const sim::u8 byte : map) {
    if (byte != 0xFF) return false;
  }
  return true;
}

Extents missing(const Extents& wanted, const Extents& have) {
  Extents result;
  for (const u64 extent : wanted) {
    if (!have.contains(extent)) result.insert(extent);
  }
  return result;
}

std::string show(const Extents& extents) {
  std::string text = std::to_string(extents.size()) + " {";
  for (const u64 extent : extents) text += " " + std::to_string(extent);
  return text + " }";
}

void Rig::make_devices(bool fresh) {
  if (fresh) {
    sim.add_device({.name = "sda1", .bytes = kDiskBytes});
    sim::Device* store = sim.add_device({.name = "sdb1", .bytes = 4 << 20, .blank = 0xA5});
    sim.add_fs("store", store->number());
  }
  ASSERT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
}

void Rig::load(const sim::DriverParams& params) { ASSERT_EQ(sim.load_driver(params), 0); }

int Rig::add(const std::string& partition, int minor, const std::string& store) {
  snbf_filter_node_cmd record = {};
  std::strcpy(record.hdd_name, partition.c_str());
  std::strcpy(record.bmp_dir, store.c_str());
  record.minor = minor;
  record.extent_size = kExtentBytes;
  const int rc = sim.ioctl(SNBF_ADD_FILTER_NODE, &record, sizeof(record));
  return rc != 0 ? rc : record.minor;
}

namespace {

int minor_command(Sim& sim, unsigned command, int minor) {
  snbf_minor_cmd record = {static_cast<u32>(minor)};
  return sim.ioctl(command, &record, sizeof(record));
}

int selection_command(Sim& sim, unsigned command, u32 type, int minor) {
  snbf_bmp_sel record = {static_cast<u32>(minor), type};
  return sim.ioctl(command, &record, sizeof(record));
}

}  // namespace

int Rig::start(int minor) { return minor_command(sim, SNBF_START_NODE, minor); }
int Rig::stop(int minor) { return minor_command(sim, SNBF_STOP_NODE, minor); }
int Rig::remove(int minor) { return minor_command(sim, SNBF_DEL_NODE, minor); }
int Rig::clear(u32 type, int minor) { return selection_command(sim, SNBF_CLR_BMP, type, minor); }
int Rig::save(u32 type, int minor) { return selection_command(sim, SNBF_SAVE_BMP, type, minor); }
int Rig::load_map(u32 type, int minor) { return selection_command(sim, SNBF_LOAD_BMP, type, minor); }

int Rig::get(u32 type, Extents* map, u32 command, int minor) {
  sim::UserBuffer buffer = sim.user(kMapBytes);
  snbf_bmp_cmd record = {static_cast<u32>(minor), type, static_cast<int>(kMapBytes), 0, buffer.address()};
  const int rc = sim.ioctl(command, &record, sizeof(record));
  if (rc == 0) *map = extents_in(buffer.bytes());
  buffer.unmap();
  return rc;
}

int Rig::map_command(u32 command, u32 type, const std::optional<Extents>& map, int minor) {
  snbf_bmp_cmd record = {static_cast<u32>(minor), type, 0, 0, 0};
  if (!map) return sim.ioctl(command, &record, sizeof(record));
  const Bytes bytes = map_of(*map);
  sim::UserBuffer buffer = sim.user(bytes);
  record.size = static_cast<int>(bytes.size());
  record.data = buffer.address();
  const int rc = sim.ioctl(command, &record, sizeof(record));
  buffer.unmap();
  return rc;
}

int Rig::merge(u32 type, const Extents& map, int minor) {
  return map_command(SNBF_MERGE_BMP, type, map, minor);
}

int Rig::set(u32 type, const std::optional<Extents>& map, int minor) {
  return map_command(SNBF_SET_BMP, type, map, minor);
}

int Rig::dirty(u32 type, int minor) {
  const char* field = type == SNBF_BMP_INCR ? "incr_bmp_dirty" : "diff_bmp_dirty";
  return std::atoi(sim.proc("/proc/snbf/snbf" + std::to_string(minor) + "/" + field).c_str());
}

}  // namespace snbf::rig
