// The disks that the nodes are.
#include "platform/disk.h"

#include <algorithm>

#include "block_dev.h"
#include "files.h"

using namespace snbf::sim;

namespace snbf::sim {

namespace {

// As udev does with every disk that appears; nobody waits for it.
void start_udev(Kernel& k, plat_devt number, const std::string& name) {
  k.sim.spawn("udev " + name, [&k, number] {
    OpenNode node;
    if (k.sim.open_node(number, PLAT_MODE_READ, &node) != 0) return;
    Bytes data;
    k.sim.read(number, 0, 4096, &data);
    k.sim.close_node(&node);
  });
}

}  // namespace

}  // namespace snbf::sim

extern "C" {

int snbf_plat_blkdev_register(int major, const char* name) {
  Kernel& k = enter_sleeping("blkdev_register");
  if (int error = k.fault(Fault::BlkdevRegister, -EBUSY); error != 0) return error;
  auto& majors = k.block_state->majors;
  if (major < 0 || major > 4095) return -EINVAL;
  if (major != 0) return majors.emplace(major, name).second ? 0 : -EBUSY;
  for (int free_major = 254; free_major > 0; --free_major) {
    if (majors.emplace(free_major, name).second) return free_major;
  }
  return -EBUSY;
}

void snbf_plat_blkdev_unregister(int major, const char* name) {
  Kernel& k = enter_sleeping("blkdev_unregister");
  auto& majors = k.block_state->majors;
  auto at = majors.find(major);
  if (at == majors.end() || at->second != name) {
    k.fatal("blkdev_unregister(%d, \"%s\"), which is not registered", major, name);
  }
  majors.erase(at);
}

plat_disk* snbf_plat_disk_alloc(const plat_disk_params* params) {
  Kernel& k = enter_sleeping("disk_alloc");
  // Its counters are per processor, and that memory has a lock of its own, whose holder may be reclaiming.
  k.reclaim_in_helper("pcpu allocator");
  if (k.fault(Fault::DiskAlloc, -ENOMEM) != 0) return nullptr;
  k.block_state->disks.push_back(std::make_unique<plat_disk>());
  plat_disk* disk = k.block_state->disks.back().get();
  disk->major = params->major;
  disk->minor = params->minor;
  disk->dev.name = params->name;
  disk->dev.number = dev(static_cast<u32>(params->major), static_cast<u32>(params->minor));
  disk->dev.sectors = params->sectors;
  disk->dev.disk = disk;
  disk->open_mutex.name = "the open mutex of " + disk->dev.name;
  if (params->limits_from != nullptr) {
    disk->dev.block_bytes = k.check_bdev(params->limits_from, "disk_alloc")->dev->block_bytes;
  }
  disk->own = {kBdevMagic, &disk->dev, PLAT_MODE_READ, PLAT_OPEN_SHARED, nullptr, false};
  return disk;
}

int snbf_plat_disk_add(plat_disk* disk) {
  Kernel& k = enter_sleeping("disk_add");
  if (disk->freed || disk->added) k.fatal("disk_add() of a disk that is freed or was added before");
  if (int error = k.fault(Fault::DiskAdd, -ENOMEM); error != 0) return error;
  if (k.block_state->majors.count(disk->major) == 0) {
    k.fatal("disk_add() of '%s': its major %d is not registered", disk->dev.name.c_str(),
            disk->major);
  }
  k.point();
  k.reclaim_in_helper("kdevtmpfs");
  const bool taken = !k.block_state->by_number.emplace(disk->dev.number, &disk->dev).second;
  if (taken) return -EEXIST;
  disk->added = true;
  if (k.udev) start_udev(k, disk->dev.number, disk->dev.name);
  k.point();
  return 0;
}

void snbf_plat_disk_link(plat_disk* disk) {
  Kernel& k = enter_sleeping("disk_link");
  if (disk->freed || !disk->added) k.fatal("disk_link() of a disk that is not there");
  k.lock(disk->open_mutex);
  k.point();
  k.unlock(disk->open_mutex);
}

void snbf_plat_disk_set_read_only(plat_disk* disk, int read_only) {
  Kernel& k = enter_sleeping("disk_set_read_only");
  if (disk->freed) k.fatal("disk_set_read_only() of a freed disk");
  disk->read_only = read_only != 0;
}

void snbf_plat_disk_del(plat_disk* disk) {
  Kernel& k = enter_sleeping("disk_del");
  if (disk->freed || !disk->added || disk->dead) {
    k.fatal("disk_del() of '%s', which is not there", disk->dev.name.c_str());
  }
  k.lock(disk->open_mutex);
  disk->dead = true;
  k.block_state->by_number.erase(disk->dev.number);
  k.unlock(disk->open_mutex);
  while (disk->inside > 0) {
    k.sleep_in(disk->drain, "the requests inside the submit function of", disk,
               disk->dev.name.c_str());
  }
}

void snbf_plat_disk_put(plat_disk* disk) {
  Kernel& k = enter_sleeping("disk_put");
  const char* name = disk->dev.name.c_str();
  if (disk->freed) k.fatal("disk_put() of '%s', which is freed", name);
  if (disk->added && !disk->dead) k.fatal("disk_put() of '%s', which was not deleted", name);
  if (disk->outstanding > 0) {
    k.fatal("disk_put() of '%s' with %d requests that the driver has not completed", name,
            disk->outstanding);
  }
  if (disk->dev.openers > 0) k.fatal("disk_put() of '%s', which is open", name);
  disk->freed = true;
  disk->own.magic = 0;
}
}
