// A file of a change bitmap as it may be found: what it says is trusted to the letter or not at
// all.
//
// An input is 3 bytes of options and the file. Bytes 0 and 1 are the size of the bitmap; byte 2
// says whether the file is one that was saved, with the input's bytes laid over it, or the input
// alone, and which call of it fails.
#include "filter/bmpfile.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "files.h"
#include "filter/bmp.h"
#include "fsread/reader.h"
#include "platform.h"

using namespace snbf;
using namespace snbf::fuzz;

int snbf_sched_write_dirty_flag(FilterNode&, u32) { return 0; }
int snbf_kill_dirty_requests(FilterNode&, u32) { return 0; }

// No write is ever parked: nobody writes.
namespace snbf {
void park(Parking&, plat_bio*, Arrival, bool) {}
bool may_overlap_parked(const Parking&, const SectorRange&) { return false; }
void ask_for_help(FilterNode&) {}
void wake_parking(FilterNode&) {}
bool wait_for_parked(FilterNode&, u32) { return true; }
}  // namespace snbf

namespace {

constexpr const char* kPath = "/b/snbf3.incr";
constexpr u32 kHeaderBytes = 16;

using Bytes = std::vector<u8>;

// Bit by bit, and not by the driver's table.
u32 crc32_register(const u8* data, size_t bytes) {
  u32 value = 0xFFFFFFFF;
  for (size_t n = 0; n < bytes; ++n) {
    value ^= data[n];
    for (int bit = 0; bit < 8; ++bit) value = value >> 1 ^ (value & 1 ? 0xEDB88320 : 0);
  }
  return value;
}

// What the file promises: its bitmap, or nothing.
const u8* promise_of(const Bytes& file, u32 bitmap_bytes) {
  if (file.size() < kHeaderBytes + bitmap_bytes || memcmp(file.data(), "SNBFBMP", 7) != 0) {
    return nullptr;
  }
  if (file[7] != 0 || le32_at(file.data() + 8) != bitmap_bytes) return nullptr;
  const u8* bits = file.data() + kHeaderBytes;
  return le32_at(file.data() + 12) == crc32_register(bits, bitmap_bytes) ? bits : nullptr;
}

class Node {
 public:
  explicit Node(u32 bitmap_bytes) {
    node.incr_bmp_size = node.diff_bmp_size = bitmap_bytes;
    node.extent_cnt = bitmap_bytes * 8;
    node.bmp_mutex.init();
    node.bmp_spin.init("bmp_spin");
    node.incr_bmp = static_cast<u32*>(snbf_plat_virt_alloc(bitmap_bytes));
    memcpy(node.incr_bmp_fname, kPath, strlen(kPath) + 1);
  }
  ~Node() { snbf_plat_virt_free(node.incr_bmp); }

  bool is(const u8* wanted) const { return memcmp(node.incr_bmp, wanted, node.incr_bmp_size) == 0; }
  bool is_all_ones() const { return is(Bytes(node.incr_bmp_size, 0xFF).data()); }

  FilterNode node;
};

void expect(bool holds, const char* what) {
  if (!holds) stop(what);
}

void load(Node& at, unsigned fails_at) {
  const Bytes file = files.bytes.count(kPath) != 0 ? files.bytes[kPath] : Bytes{};
  files.fails_at = fails_at;
  const int rc = snbf_block_load_bmp(at.node, SNBF_BMP_INCR);
  const bool has_failed = fails_at != 0 && files.fails_at == 0;
  files.fails_at = 0;
  const u8* promise = promise_of(file, at.node.incr_bmp_size);
  expect(!has_failed || rc < 0, "a failure that is not told");
  if (rc == 0 && promise != nullptr) {
    expect(at.is(promise), "a sound file whose bits are not taken");
    expect(at.node.incr_bmp_dirty == 0, "a bitmap as its file has it, and dirty");
  } else {
    expect(at.is_all_ones(), "bits out of a file that nobody vouches for");
  }
}

void run(const u8* data, size_t size) {
  const u32 bitmap_bytes = le16_at(data) % 5000 + 1;
  const u8 options = data[2];
  data += 3;
  size -= 3;
  files = {};
  files.call_bytes_max = options & 2 ? options : 0;
  Node at{bitmap_bytes};
  if ((options & 1) != 0) {
    u8* bits = reinterpret_cast<u8*>(at.node.incr_bmp);
    for (u32 n = 0; n < bitmap_bytes; ++n) bits[n] = static_cast<u8>(n * 37 + options);
    expect(snbf_block_save_bmp(at.node, SNBF_BMP_INCR) == 0, "a save that fails");
    expect(promise_of(files.bytes[kPath], bitmap_bytes) != nullptr, "a save that is not sound");
    // Places and bytes in turn.
    Bytes& file = files.bytes[kPath];
    for (; size >= 3; data += 3, size -= 3) file[le16_at(data) % file.size()] ^= data[2];
    if (size > 0) file.resize(file.size() - data[0] % file.size());
  } else {
    files.bytes[kPath].assign(data, data + size);
  }
  load(at, 0);
  load(at, options >> 2 & 7);
  expect(snbf_block_save_bmp(at.node, SNBF_BMP_INCR) == 0, "a save that fails");
  load(at, 0);
  expect(snbf_block_write_dirty_flag(at.node, SNBF_BMP_INCR, 1) == 0, "a flag that fails");
  load(at, 0);
  expect(at.is_all_ones(), "a dirty file that is trusted");
  expect(files.open == 0, "a file that is left open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  memory_max = 64 << 10;
  run(data, size);
  expect_no_memory();
  return 0;
}
