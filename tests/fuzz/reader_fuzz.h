// One reader over a damaged image of its file system.
//
// An input is a byte of options and then patches of the image: 2 bytes that choose one of the pages
// that are not zeros, 2 bytes for the place in it, 1 byte for the length, and the bytes.
#pragma once

#include <algorithm>

#include "device.h"
#include "fsread/reader.h"
#include "platform.h"

namespace snbf::fuzz {

class ReaderFuzz {
 public:
  // A base image as `command` makes it; see make_base.
  ReaderFuzz(const FsReader& reader, u64 bytes, const std::string& command)
      : reader_(reader), bytes_(bytes), base_(make_base(bytes, command)) {
    for (const auto& [at, page] : base_) places_.push_back(at);
  }

  void run(const u8* data, size_t size) {
    if (size < 1) return;
    const u8 options = data[0];
    device.base = &base_;
    device.damage.clear();
    // Every fourth input lies on a device that is too short.
    device.bytes = (options & 3) == 3 ? bytes_ / 64 * (options >> 4 & 15) : bytes_;
    device.reads = 0;
    device.reads_max = 2'000'000;
    memory_max = (8 << 20) + bytes_ / 256;
    patch(data + 1, size - 1);
    read_all(12 + (options >> 2 & 3) * 4);
    expect_no_memory();
  }

 private:
  void patch(const u8* data, size_t size) {
    while (size > 5) {
      const u64 at = places_[le16_at(data) % places_.size()];
      Page& page = device.damage.try_emplace(at, base_.at(at)).first->second;
      const size_t offset = le16_at(data + 2) % page.size();
      size_t length = data[4] % 32 + 1;
      data += 5;
      size -= 5;
      length = std::min({length, size, page.size() - offset});
      std::copy(data, data + length, page.begin() + static_cast<long>(offset));
      data += length;
      size -= length;
    }
  }

  void read_all(u32 chunk_shift) {
    u32 block_size = 0;
    void* handle = reader_.init(nullptr_device(), &block_size);
    if (handle == nullptr) return;
    const u32 chunk_size = 1u << chunk_shift;
    const u64 chunks = (device.bytes + chunk_size - 1) >> chunk_shift;
    std::vector<u8> bits((chunks + 7) / 8);
    reader_.read(handle, 0, chunk_size, bits.data(), static_cast<u32>(chunks));
    // A piece from the middle, and one behind the end.
    std::vector<u8> few(8);
    reader_.read(handle, chunks / 2, chunk_size, few.data(), 61);
    reader_.read(handle, 0xFFFFFFFF, chunk_size, few.data(), 64);
    reader_.destroy(handle);
  }

  // The platform of this program has one device only.
  static plat_bdev* nullptr_device() { return reinterpret_cast<plat_bdev*>(&device); }

  FsReader reader_;
  u64 bytes_;
  Pages base_;
  std::vector<u64> places_;
};

}  // namespace snbf::fuzz

#define SNBF_FUZZ_READER(name, bytes, command, ...)                                           \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {                   \
    static snbf::fuzz::ReaderFuzz fuzz(                                                       \
        snbf::reader_of<__VA_ARGS__, name##_init, name##_read, name##_destroy>(false), bytes, \
        command);                                                                             \
    fuzz.run(data, size);                                                                     \
    return 0;                                                                                 \
  }
