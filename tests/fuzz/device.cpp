#include "device.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/block.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/sync.h"
#include "platform/task.h"

namespace snbf::fuzz {

FuzzDevice device;

namespace {

uint64_t live_bytes = 0;

[[noreturn]] void stop(const char* why) {
  fprintf(stderr, "fuzz: %s\n", why);
  abort();
}

// The size stands in front of each block.
constexpr size_t kHeaderBytes = 16;

void* take(size_t bytes) {
  live_bytes += bytes;
  if (live_bytes > device.memory_max) stop("more memory than the device's size warrants");
  uint8_t* block = static_cast<uint8_t*>(malloc(bytes + kHeaderBytes));
  memcpy(block, &bytes, sizeof(bytes));
  return block + kHeaderBytes;
}

void give_back(void* block) {
  if (block == nullptr) return;
  uint8_t* begin = static_cast<uint8_t*>(block) - kHeaderBytes;
  size_t bytes = 0;
  memcpy(&bytes, begin, sizeof(bytes));
  live_bytes -= bytes;
  free(begin);
}

const Page* find_page(uint64_t at) {
  if (auto page = device.damage.find(at); page != device.damage.end()) return &page->second;
  if (auto page = device.base->find(at); page != device.base->end()) return &page->second;
  return nullptr;
}

void copy_out(uint64_t at, uint8_t* to, uint64_t bytes) {
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

uint64_t live_memory() { return live_bytes; }

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
// The platform contract, as far as the readers use it.

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

int snbf_debug = 4;

void snbf_log(int, const char* format, ...) {
  char line[4096];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
}

void snbf_plat_bug(const char* file, int line, const char* what) {
  fprintf(stderr, "%s:%d: %s\n", file, line, what);
  abort();
}

void* snbf_plat_heap_alloc(plat_size bytes, plat_alloc_mode) { return snbf::fuzz::take(bytes); }
void snbf_plat_heap_free(void* block) { snbf::fuzz::give_back(block); }
void* snbf_plat_virt_alloc(plat_size bytes) {
  void* area = snbf::fuzz::take(bytes);
  memset(area, 0, bytes);
  return area;
}
void snbf_plat_virt_free(void* area) { snbf::fuzz::give_back(area); }
void* snbf_plat_page_alloc(plat_alloc_mode) { return snbf::fuzz::take(4096); }
void snbf_plat_page_free(void* page) { snbf::fuzz::give_back(page); }

void snbf_plat_completion_init(plat_completion* completion) { completion->opaque[0] = 0; }
void snbf_plat_complete(plat_completion* completion) { completion->opaque[0] = 1; }
void snbf_plat_completion_wait(plat_completion* completion) {
  if (completion->opaque[0] == 0) snbf::fuzz::stop("a wait that would never end");
}

// The device is open before the readers see it.
int snbf_plat_bdev_open(plat_devt, int, plat_open_kind, void*, plat_bdev**) { return -6; }
int snbf_plat_bdev_close(plat_bdev*, plat_open_kind, int, void*) { return 0; }
int snbf_plat_bdev_is_mounted(plat_bdev*) { return 0; }
plat_u64 snbf_plat_bdev_bytes(plat_bdev*) { return device.bytes; }
plat_u32 snbf_plat_bdev_block_bytes(plat_bdev*) { return 512; }
plat_devt snbf_plat_bdev_device(plat_bdev*) { return 8 << 20 | 1; }

plat_bio* snbf_plat_bio_alloc(plat_alloc_mode) {
  plat_bio* bio = static_cast<plat_bio*>(snbf::fuzz::take(sizeof(plat_bio)));
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
void snbf_plat_bio_put(plat_bio* bio) { snbf::fuzz::give_back(bio); }

}  // extern "C"
