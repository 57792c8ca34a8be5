// Free space that is scattered: trees of several levels, with leaves of four records.
#include "../unit/fsread/xfs_image.h"
#include "fsread/xfs_reader.h"
#include "reader_fuzz.h"

namespace {

snbf::sim::XfsImage scattered() {
  snbf::sim::XfsImage image = {.block_size = 512, .ag_lengths = {4096, 3000}, .free = {{}, {}}};
  for (snbf::u32 n = 0; n < 60; ++n) image.free[0].push_back({300 + 60 * n, 20});
  for (snbf::u32 n = 0; n < 9; ++n) image.free[1].push_back({100 + 100 * n, 99});
  return image;
}

// Takes what an image is made of, sector by sector.
struct PageDisk {
  snbf::fuzz::Pages pages;

  void poke(snbf::u64 sector, const std::vector<snbf::u8>& bytes) {
    for (size_t n = 0; n < bytes.size(); ++n) {
      const snbf::u64 at = sector * 512 + n;
      snbf::fuzz::Page& page = pages[at & ~snbf::u64{4095}];
      page.resize(4096);
      page[at % 4096] = bytes[n];
    }
  }
};

snbf::fuzz::Pages pages_of(const snbf::sim::XfsImage& image) {
  PageDisk disk;
  image.put_on(&disk);
  return disk.pages;
}

}  // namespace

SNBF_FUZZ_READER(xfs_reader, XfsReader, scattered().device_bytes(), pages_of(scattered()))
