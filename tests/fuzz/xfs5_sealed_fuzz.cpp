// An XFS as it is made today: the damage is sealed with new checksums.
#include "fsread/crc32c.h"
#include "fsread/xfs5_layout.h"
#include "fsread/xfs5_reader.h"
#include "reader_fuzz.h"
#include "xfs_tree.h"

namespace {

using snbf::fuzz::Page;
using snbf::fuzz::Pages;

// Each structure fills a page of its own; its magic number tells where its checksum is.
void seal(snbf::u64, Page& page) {
  size_t at = 0;
  switch (snbf::be32_at(page.data())) {
    case 0x58465342:  // "XFSB"
      at = snbf::kXfsSuperChecksumAt;
      break;
    case 0x58414746:  // "XAGF"
      at = 216;
      break;
    case 0x41423342:  // "AB3B"
      at = 52;
      break;
    default:
      return;
  }
  std::fill_n(page.begin() + static_cast<long>(at), 4, snbf::u8{0});
  snbf::sim::put_le(page, at, ~snbf::crc32c(~0u, page.data(), page.size()), 4);
}

Pages make_pages() {
  Pages pages = snbf::fuzz::with_grown_tree(
      snbf::fuzz::make_base(320 << 20, "mkfs.xfs -q -f -s size=4096 @"), 56);
  for (auto& [at, page] : pages) seal(at, page);
  return pages;
}

}  // namespace

SNBF_FUZZ_READER(xfs5_reader, Xfs5Reader, 320 << 20, make_pages(), snbf::xfs5_reader_claim, seal)
