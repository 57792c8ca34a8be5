// One reader over a damaged image of its file system.
//
// An input is a byte of options and then patches of the image: 2 bytes that choose a word, 1 byte for the length
// and the place in the word, and the bytes. With the highest bit of that byte they choose a page, and 2 bytes more
// the place in it. Only words and pages that are not all zeros are to be chosen.
#pragma once

#include <algorithm>
#include <random>

#include "device.h"
#include "fsread/reader.h"
#include "platform.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t size_max);

namespace snbf::fuzz {

// Makes the checksums of a damaged page right again, so that what lies behind them is tried too.
using Seal = void (*)(u64 at, Page& page);

class ReaderFuzz {
 public:
  // `claim`: what is asked of the device before the reader opens it; `seal`: null, where nothing is sealed.
  ReaderFuzz(const FsReader& reader, u64 bytes, Pages base, Claim (*claim)(plat_bdev*) = nullptr,
             Seal seal = nullptr)
      : reader_(reader), bytes_(bytes), base_(std::move(base)), claim_(claim), seal_(seal) {
    for (const auto& [at, page] : base_) {
      pages_.push_back(at);
      for (size_t word = 0; word + kWordBytes <= page.size(); word += kWordBytes) {
        if (std::any_of(&page[word], &page[word] + kWordBytes, [](u8 byte) { return byte != 0; })) {
          words_.push_back(at + word);
        }
      }
    }
  }

  // Half of the time as bytes. Else one more patch: a word gets what another one has, or nearly, for damage is worst
  // where it looks like sense.
  size_t mutate(u8* data, size_t size, size_t size_max, unsigned seed) const {
    if (seed % 2 == 0 || size < 1 || size + kPatchBytes > size_max) {
      return LLVMFuzzerMutate(data, size, size_max);
    }
    std::minstd_rand random(seed);
    const u64 to = random() % words_.size() % 65536;
    const u64 from = words_[random() % words_.size()];
    u8* patch = data + size;
    patch[0] = static_cast<u8>(to);
    patch[1] = static_cast<u8>(to >> 8);
    patch[2] = kWholeWord;
    std::copy_n(&base_.at(from & ~u64{4095})[from % 4096], kWordBytes, patch + 3);
    switch (random() % 8) {
      case 0:
        std::fill_n(patch + 3, kWordBytes, static_cast<u8>(random() % 2 == 0 ? 0 : 0xFF));
        break;
      case 1:
      case 2:
        patch[3 + random() % kWordBytes] += random() % 2 == 0 ? 1 : 0xFF;
        break;
      default:
        break;
    }
    return size + kPatchBytes;
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
    if (claim_ != nullptr) claim_(nullptr_device());
    read_all(12 + (options >> 2 & 3) * 4);
    expect_no_memory();
  }

 private:
  static constexpr size_t kWordBytes = 4;
  static constexpr u8 kInPage = 0x80;
  static constexpr size_t kLengths[] = {1, 1, 2, 2, 4, 4, 8, 32};
  static constexpr u8 kWholeWord = 4;
  static constexpr size_t kPatchBytes = 3 + kWordBytes;

  void patch(const u8* data, size_t size) {
    while (size > 5) {
      const u64 choice = le16_at(data);
      const u8 how = data[2];
      const bool is_in_page = (how & kInPage) != 0;
      const u64 at = is_in_page ? pages_[choice % pages_.size()] + le16_at(data + 3) % 4096
                                : words_[choice % words_.size()] + (how >> 3) % kWordBytes;
      data += is_in_page ? 5 : 3;
      size -= is_in_page ? 5 : 3;
      const u64 page_at = at & ~u64{4095};
      Page& page = device.damage.try_emplace(page_at, base_.at(page_at)).first->second;
      const size_t offset = std::min(at - page_at, page.size());
      const size_t length = std::min({kLengths[how % 8], size, page.size() - offset});
      std::copy(data, data + length, page.begin() + static_cast<long>(offset));
      data += length;
      size -= length;
    }
    if (seal_ == nullptr) return;
    for (auto& [at, page] : device.damage) seal_(at, page);
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
  Claim (*claim_)(plat_bdev*);
  Seal seal_;
  std::vector<u64> pages_;
  std::vector<u64> words_;
};

}  // namespace snbf::fuzz

// The rest: the reader's type, and what else ReaderFuzz takes.
#define SNBF_FUZZ_READER(name, type, bytes, ...)                                             \
  static snbf::fuzz::ReaderFuzz& target() {                                                  \
    static snbf::fuzz::ReaderFuzz fuzz(                                                      \
        snbf::reader_of<snbf::type, name##_init, name##_read, name##_destroy>(false), bytes, \
        __VA_ARGS__);                                                                        \
    return fuzz;                                                                             \
  }                                                                                          \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {                  \
    target().run(data, size);                                                                \
    return 0;                                                                                \
  }                                                                                          \
  extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t size_max,     \
                                            unsigned seed) {                                 \
    return target().mutate(data, size, size_max, seed);                                      \
  }
