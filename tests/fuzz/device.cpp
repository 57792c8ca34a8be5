#include "device.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform.h"
#include "platform/block.h"

namespace snbf::fuzz {

FuzzDevice device;

namespace {

const Page* find_page(uint64_t at) {
  if (auto page = device.damage.find(at); page != device.damage.end()) return &page->second;
  if (auto page = device.base->find(at); page != device.base->end()) return &page->second;
  return nullptr;
}

void copy_out(uint64_t at, uint8_t* to, uint64_t bytes) {
  if (device.fd >= 0) {
    if (pread(device.fd, to, bytes, static_cast<off_t>(at)) != static_cast<ssize_t>(bytes)) {
      stop("the image cannot be read");
    }
    return;
  }
  while (bytes > 0) {
    const uint64_t in_page = at % 4096;
    const uint64_t part = std::min<uint64_t>(bytes, 4096 - in_page);
    const Page* page = find_page(at - in_page);
    memset(to, 0, part);
    if (page != nullptr && page->size() > in_page) {
      memcpy(to, page->data() + in_page, std::min<uint64_t>(part, page->size() - in_page));
    }
    at += part;
    to += part;
    bytes -= part;
  }
}

std::string expand(const std::string& command, const std::string& path) {
  std::string text = "PATH=$PATH:/usr/sbin:/sbin; (";
  for (char c : command) text += c == '@' ? path : std::string(1, c);
  return text + ") >/dev/null 2>&1 </dev/null";
}

}  // namespace

Pages make_base(uint64_t bytes, const std::string& command) {
  const char* folder = getenv("TMPDIR");
  std::string path = std::string(folder != nullptr ? folder : "/tmp") + "/snbf-fuzz-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) stop("no place for an image");
  if (system(expand(command, path).c_str()) != 0) stop("the image cannot be made");
  Pages pages;
  off_t data = lseek(fd, 0, SEEK_DATA);
  while (data >= 0) {
    const off_t hole = lseek(fd, data, SEEK_HOLE);
    for (data &= ~off_t{4095}; data < hole; data += 4096) {
      Page page(4096);
      const ssize_t got = pread(fd, page.data(), page.size(), data);
      if (got <= 0) break;
      page.resize(static_cast<size_t>(got));
      const bool is_zero =
          std::all_of(page.begin(), page.end(), [](uint8_t byte) { return byte == 0; });
      if (!is_zero) pages[static_cast<uint64_t>(data)] = page;
    }
    data = lseek(fd, hole, SEEK_DATA);
  }
  close(fd);
  unlink(path.c_str());
  return pages;
}

}  // namespace snbf::fuzz

using snbf::fuzz::device;

// ------------------------------------------------------------------------------------------
// The platform contract, as far as the readers use a device.

struct plat_bio {
  plat_u64 sector;
  void* page;
  plat_u32 bytes;
  plat_u32 bytes_left;
  bool is_uptodate;
  const plat_bio_hooks* hooks;
  void* context;
};

extern "C" {

// The device is open before the readers see it.
int snbf_plat_bdev_open(plat_devt, int, plat_open_kind, void*, plat_bdev**) { return -6; }
int snbf_plat_bdev_close(plat_bdev*, plat_open_kind, int, void*) { return 0; }
int snbf_plat_bdev_is_mounted(plat_bdev*) { return 0; }
plat_u64 snbf_plat_bdev_bytes(plat_bdev*) { return device.bytes; }
plat_u32 snbf_plat_bdev_block_bytes(plat_bdev*) { return 512; }
plat_devt snbf_plat_bdev_device(plat_bdev*) { return 8 << 20 | 1; }

plat_bio* snbf_plat_bio_alloc(plat_alloc_mode) {
  plat_bio* bio = static_cast<plat_bio*>(snbf::fuzz::take_memory(sizeof(plat_bio)));
  *bio = {};
  return bio;
}
void snbf_plat_bio_set_page(plat_bio* bio, int, plat_u64 sector, void* page, plat_u32 bytes) {
  bio->sector = sector;
  bio->page = page;
  bio->bytes = bio->bytes_left = bytes;
}
void snbf_plat_bio_set_hooks(plat_bio* bio, const plat_bio_hooks* hooks, void* context) {
  bio->hooks = hooks;
  bio->context = context;
}
void* snbf_plat_bio_context(const plat_bio* bio) { return bio->context; }
plat_u32 snbf_plat_bio_bytes_left(const plat_bio* bio) { return bio->bytes_left; }
int snbf_plat_bio_is_uptodate(const plat_bio* bio) { return bio->is_uptodate; }
void snbf_plat_bio_submit(plat_bio* bio, plat_bdev*) {
  if (++device.reads > device.reads_max) snbf::fuzz::stop("reads without an end");
  const plat_u64 sectors = device.bytes / 512;
  bio->is_uptodate = bio->sector <= sectors && bio->bytes / 512 <= sectors - bio->sector;
  if (bio->is_uptodate) {
    snbf::fuzz::copy_out(bio->sector * 512, static_cast<uint8_t*>(bio->page), bio->bytes);
  }
  bio->bytes_left = 0;
  bio->hooks->end_io(bio, bio->bytes, bio->is_uptodate ? 0 : -5);
}
void snbf_plat_bio_put(plat_bio* bio) { snbf::fuzz::give_memory(bio); }

}  // extern "C"
