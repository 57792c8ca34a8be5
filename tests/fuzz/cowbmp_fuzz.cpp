// A COW bitmap's file as a resume may find it, and what is set in it afterwards.
//
// An input is 4 bytes of options, then pairs that say which bits are set later, then the file.
#include <algorithm>
#include <cstring>

#include "files.h"
#include "fsread/reader.h"
#include "platform.h"
#include "snap/cowbmp.h"

using namespace snbf;
using namespace snbf::fuzz;

namespace {

constexpr const char* kPath = "/c/cow.bmp";
constexpr u32 kBitsAtOnce = 16;

using Bytes = std::vector<u8>;

void expect(bool holds, const char* what) {
  if (!holds) stop(what);
}

bool has_bit(const Bytes& file, u64 bit) {
  return bit / 8 < file.size() && bit_of(file.data(), bit);
}

void compare_bit(CowBitmap& bitmap, const Bytes& file, u64 bit) {
  const bool wanted = has_bit(file, bit);
  expect((snbf_cowbmp_test_bit(&bitmap, static_cast<int>(bit)) == 1) == wanted, "a wrong bit");
  expect(snbf_cowbmp_is_set(&bitmap, bit) == wanted, "a wrong bit without the lock");
}

void compare(CowBitmap& bitmap, const Bytes& file) {
  const u64 bits = file.size() * 8;
  for (u64 bit = 0; bit < bits; bit += bit % 64 == 63 ? 1 : 7) compare_bit(bitmap, file, bit);
  for (u64 more = 0; more < 70'000; more += more + 1) compare_bit(bitmap, file, bits + more);
}

// Sets bits as copies do, and keeps the model; false once the file has failed.
bool set_bits(CowBitmap& bitmap, const u8* data, size_t pairs, bool one_by_one, Bytes& model) {
  snbf_file* file = snbf_fopen(kPath, PLAT_O_RDWR, 0600);
  if (file == nullptr) return false;
  u32 bits[kBitsAtOnce];
  u32 count = 0;
  int rc = 0;
  for (size_t n = 0; n < pairs && rc == 0; ++n) {
    const u32 bit = le16_at(data + n * 2) * (n % 3 == 0 ? 9u : 1u);
    const bool is_inside = bit < bitmap.nbits;
    if (one_by_one || !is_inside) {
      rc = snbf_cowbmp_set_bit(&bitmap, static_cast<int>(bit), PLAT_ALLOC_NORMAL, file);
      if (is_inside) set_bit_of(model.data(), bit);
      expect(is_inside || rc == -22, "a bit behind the end");
      if (!is_inside) rc = 0;
      continue;
    }
    bits[count++] = bit;
    set_bit_of(model.data(), bit);
    if (count == kBitsAtOnce || n + 1 == pairs) {
      rc = snbf_cowbmp_set_bits(&bitmap, bits, count, PLAT_ALLOC_NORMAL, file);
      count = 0;
    }
  }
  if (rc == 0 && count != 0) {
    rc = snbf_cowbmp_set_bits(&bitmap, bits, count, PLAT_ALLOC_NORMAL, file);
  }
  snbf_fclose(file);
  return rc == 0;
}

void run(const u8* data, size_t size) {
  const u64 chunks = le16_at(data) * 5u + 1;
  const u8 options = data[2];
  size_t pairs = std::min<size_t>(data[3] % 64, (size - 4) / 2);
  const u8* later = data + 4;
  data = later + pairs * 2;
  size -= 4 + pairs * 2;
  files = {};
  Bytes& file = files.bytes[kPath];
  file.assign(data, data + size);
  // Often longer than an input, and with empty pages.
  file.resize(file.size() * (options >> 6 == 3 ? 61 : 1));
  files.call_bytes_max = options & 2 ? 1000u + options : 0;
  CowBitmap bitmap;
  expect(snbf_cowbmp_init(&bitmap, chunks) == 0, "a bitmap that cannot be made");
  Bytes model = file;
  const unsigned fails_at = options & 1 ? options >> 2 & 7 : 0;
  files.fails_at = fails_at;
  const int rc = snbf_cowbmp_load(&bitmap, kPath);
  const bool has_failed = fails_at != 0 && files.fails_at == 0;
  files.fails_at = 0;
  expect(!has_failed || rc < 0, "a failure that is not told");
  if (rc == 0) {
    expect(bitmap.nbits == model.size() * 8, "a bitmap of another size than its file");
    compare(bitmap, model);
    if (set_bits(bitmap, later, pairs, (options & 0x20) != 0, model)) {
      compare(bitmap, model);
      expect(files.bytes[kPath] == model, "a file that does not follow its bitmap");
    }
    const char* other = "/c/saved.bmp";
    expect(snbf_cowbmp_save(&bitmap, other) == 0, "a save that fails");
    expect(files.bytes[other] == model, "a save that differs");
  } else {
    expect(model.empty() || has_failed, "a load that fails for no reason");
    // Kept: without the file the bitmap stays as it was; without its bytes there is none.
    const bool is_opened = fails_at != 1;
    expect((bitmap.pages == nullptr) == is_opened, "a bitmap after a load that failed");
  }
  snbf_cowbmp_destroy(&bitmap);
  expect(files.open == 0, "a file that is left open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  memory_max = (64 << 10) + size * 61 * 2;
  run(data, size);
  expect_no_memory();
  return 0;
}
