// A log of an XFS with damage. An input is 4 bytes of options and then patches: 3 bytes for the
// place in what was written, and a byte that changes it.
#include "fsread/xfs_log.h"

#include "../unit/fsread/xfs_log_image.h"
#include "device.h"
#include "fsread/reader.h"
#include "platform.h"

using namespace snbf;
using namespace snbf::fuzz;

namespace {

constexpr u32 kBlock = 512;
constexpr u32 kLogAt = 8;

std::vector<u8> super_with(u32 log_blocks) {
  std::vector<u8> super(512);
  sim::put_be(super, 0, 0x58465342, 4);
  sim::put_be(super, 4, kBlock, 4);
  sim::put_be(super, 48, kLogAt, 8);
  sim::put_be(super, 84, 1 << 20, 4);
  sim::put_be(super, 96, log_blocks, 4);
  sim::put_be(super, 102, 512, 2);
  super[124] = 20;
  return super;
}

// A history that ends as the option says, without checksums that would turn all damage away.
sim::XfsLogImage log_of(u32 sectors, u8 options) {
  using sim::LogBody;
  const sim::XfsLogImage::Options loose = {.version = options & 1 ? 2u : 1u,
                                           .size_max = options & 2 ? 65536u : 32768u,
                                           .has_checksum = false};
  sim::XfsLogImage log(sectors, options >> 2 & 3);
  for (int n = options >> 4; n > 0; --n) log.add(LogBody::work(900), log.kSelf, loose);
  const u64 work = log.add(LogBody::work(100), log.kSelf, loose);
  const u64 first = log.add(LogBody::superblock(), work, loose);
  log.add(options & 4 ? LogBody::superblock() : LogBody::unmount(), first, loose);
  return log;
}

void run(const u8* data, size_t size) {
  // Sometimes there is room for a record that is larger than any.
  const u32 sectors = data[1] < 128 ? 16u + data[1] : (data[1] - 100u) * 8;
  sim::XfsLogImage log = log_of(sectors, data[0]);
  std::vector<u8> super = super_with(data[2] == 0xFF ? sectors * 3 : sectors);
  data += 4;
  size -= 4;
  for (; size >= 4; data += 4, size -= 4) {
    const size_t at = (le16_at(data) | size_t{data[2]} << 16) % log.bytes.size();
    log.bytes[at] ^= data[3];
  }
  Pages pages;
  for (size_t at = 0; at < log.bytes.size(); at += 4096) {
    const size_t end = std::min(at + 4096, log.bytes.size());
    pages[kLogAt * kBlock + at] =
        Page(log.bytes.begin() + static_cast<long>(at), log.bytes.begin() + static_cast<long>(end));
  }
  device.base = &pages;
  device.bytes = (u64{kLogAt} + sectors) * kBlock;
  device.reads = 0;
  device.reads_max = 5000;
  memory_max = 1 << 20;
  judge_xfs_log(reinterpret_cast<plat_bdev*>(&device), xfs_super_at(super.data()));
  expect_no_memory();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size >= 4) run(data, size);
  return 0;
}
