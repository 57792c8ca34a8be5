// What outlives a boot.
#pragma once

#include "files.h"

namespace snbf::sim {

struct Images::Impl {
  struct DeviceImage {
    DeviceOptions options;
    std::shared_ptr<Storage> storage;
  };
  struct FsImage {
    std::string name;
    plat_devt device;
    u64 blocks;
    Meta meta;
  };
  std::vector<DeviceImage> devices;
  std::vector<FsImage> filesystems;
};

void restore_images(Sim& sim, const Images::Impl& images);

}  // namespace snbf::sim
