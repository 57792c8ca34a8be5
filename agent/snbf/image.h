// SPDX-License-Identifier: GPL-2.0-only
// Points as qcow2 images: made by qemu-img, written through qemu-nbd with many requests in flight.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "extents.h"
#include "sink.h"

struct nbd_handle;

namespace snbf {

// Only its owner can read it. `backing` is a file's name in the same directory, or empty.
void create_image(const std::string& path, uint64_t size_bytes, uint64_t cluster_bytes,
                  const std::string& backing);

// The cluster of an image whose extents are of this size: a request then fills whole clusters.
uint64_t cluster_for(uint64_t extent_size);

struct ServerUri {
  std::string uri;
};

class ImageWriter : public Sink {
 public:
  // An image at `path`, by a server of our own. A wait for a server that hangs ends with a Failure
  // once `stop` says so.
  explicit ImageWriter(const std::string& path, std::function<bool()> stop = nullptr);
  // Whatever a server has.
  explicit ImageWriter(const ServerUri& server, std::function<bool()> stop = nullptr);
  ~ImageWriter() override;
  ImageWriter(const ImageWriter&) = delete;
  ImageWriter& operator=(const ImageWriter&) = delete;

  uint8_t* next_buffer() override;
  void write(const uint8_t* bytes, uint64_t length, uint64_t offset) override;
  void zero(uint64_t length, uint64_t offset) override;
  // Everything queued is in the image's file and the server is gone.
  void finish() override;
  // Everything queued is durable; the server stays.
  void drain();
  // Of what was drained.
  void read(uint8_t* to, uint64_t length, uint64_t offset);
  uint64_t size() const;

 private:
  struct Slot {
    uint8_t* bytes = nullptr;
    std::vector<int64_t> cookies;
  };
  void divide_memory();
  void reap(Slot* slot);
  void wait_for_progress();
  void wait_for(int64_t cookie, const char* doing);
  [[noreturn]] void fail(const char* doing) const;
  int64_t must(int64_t rc, const char* doing) const;

  static constexpr size_t kSlots = 16;
  std::string path_;
  std::function<bool()> stop_;
  std::unique_ptr<uint8_t, void (*)(void*)> memory_;
  nbd_handle* nbd_ = nullptr;
  bool can_zero_ = true;
  std::vector<uint8_t> zeros_;  // for a server that cannot
  Slot slots_[kSlots];
  size_t current_ = kSlots - 1;
};

// The image's bytes, through its whole chain.
class ImageReader {
 public:
  explicit ImageReader(const std::string& path);
  ~ImageReader();
  ImageReader(const ImageReader&) = delete;
  ImageReader& operator=(const ImageReader&) = delete;

  void read(uint8_t* to, uint64_t length, uint64_t offset);

 private:
  std::string path_;
  nbd_handle* nbd_ = nullptr;
};

struct Copied {
  uint64_t read_bytes = 0;
  uint64_t written_bytes = 0;
  uint64_t zero_bytes = 0;
};

// Copy the set extents of the open source device. `leave_zeros`: zeros need not be written, since
// nothing lies below. `progress` is called with the bytes read; it may throw to end the copy.
Copied copy_extents(int source_fd, const Extents& which, Sink* sink, bool leave_zeros,
                    const std::function<void(uint64_t)>& progress);

// The extents of `which` whose bytes the image does not share with the open device. `progress` is
// called with the bytes read.
Extents compare_extents(int device_fd, const Extents& which, ImageReader* image,
                        const std::function<void(uint64_t)>& progress);

// The set extents read as zeros from the image, whatever lies below.
void zero_extents(const Extents& which, Sink* sink);

}  // namespace snbf
