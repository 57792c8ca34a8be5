// What the map of a file system costs: builds it over an image file with the driver's own readers,
// and prints one line of JSON. mapcost IMAGE CHUNK_BYTES
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "device.h"
#include "fsread/blkbmp.h"
#include "platform.h"

using namespace snbf::fuzz;

namespace {

double cpu_seconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  struct stat info = {};
  device.fd = open(argv[1], O_RDONLY | O_CLOEXEC);
  if (device.fd < 0 || fstat(device.fd, &info) != 0) {
    perror(argv[1]);
    return 2;
  }
  device.bytes = static_cast<uint64_t>(info.st_size);
  device.reads_max = ~uint64_t{0};
  snbf_blkbmp map;
  snbf_blkbmp_init(&map);
  const double began = cpu_seconds();
  const int rc = snbf_blkbmp_read(&map, reinterpret_cast<plat_bdev*>(&device),
                                  static_cast<snbf::u32>(atoi(argv[2])));
  const double took = cpu_seconds() - began;
  uint64_t used = 0;
  for (int chunk = 0; rc == 0 && chunk < map.chunks; ++chunk) {
    used += static_cast<uint64_t>(snbf_blkbmp_is_used(&map, static_cast<snbf::u64>(chunk)));
  }
  printf(
      "{\"rc\": %d, \"bytes\": %llu, \"chunks\": %d, \"used\": %llu, \"cpu_s\": %.4f, "
      "\"pages_read\": %llu, \"held_bytes\": %llu, \"peak_bytes\": %llu}\n",
      rc, static_cast<unsigned long long>(device.bytes), map.chunks,
      static_cast<unsigned long long>(used), took, static_cast<unsigned long long>(device.reads),
      static_cast<unsigned long long>(live_memory()),
      static_cast<unsigned long long>(peak_memory()));
  return rc == 0 ? 0 : 1;
}
