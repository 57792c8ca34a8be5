// SPDX-License-Identifier: GPL-2.0-only
#include "image.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libnbd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "files.h"

namespace snbf {

namespace {

constexpr size_t kAlignment = 4096;
constexpr uint64_t kClusterMin = 4096;
constexpr uint64_t kClusterMax = 2 << 20;
constexpr uint64_t kCompared = 4096;    // no extent is smaller
constexpr uint64_t kZeroMax = 1 << 30;  // of one request
constexpr int kStopAskedEveryMs = 200;

bool all_zero(const uint8_t* bytes, size_t length) {
  return length == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}

void read_at(int fd, uint8_t* to, uint64_t length, uint64_t offset) {
  for (uint64_t done = 0; done < length;) {
    const ssize_t n = ::pread(fd, to + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0)
      throw failure_of(-errno, fmt::format("reading the device at byte {}", offset + done));
    if (n == 0)
      throw failure_of(-EIO, fmt::format("reading the device: it ends at byte {}", offset + done));
    done += static_cast<uint64_t>(n);
  }
}

// Queue one buffer's worth, cut where zeros begin and end.
void queue(Sink* sink, const uint8_t* bytes, uint64_t length, uint64_t offset, uint64_t granule,
           bool leave_zeros, Copied* copied) {
  for (uint64_t at = 0; at < length;) {
    const auto step_at = [&](uint64_t from) { return std::min(granule, length - from); };
    const bool zero = all_zero(bytes + at, step_at(at));
    uint64_t end = at + step_at(at);
    while (end < length && all_zero(bytes + end, step_at(end)) == zero) end += step_at(end);
    if (zero) {
      copied->zero_bytes += end - at;
      if (!leave_zeros) sink->zero(end - at, offset + at);
    } else {
      copied->written_bytes += end - at;
      sink->write(bytes + at, end - at, offset + at);
    }
    at = end;
  }
}

std::unique_ptr<uint8_t, void (*)(void*)> aligned_memory(size_t bytes) {
  void* raw = nullptr;
  if (::posix_memalign(&raw, kAlignment, bytes) != 0) throw std::bad_alloc();
  return {static_cast<uint8_t*>(raw), ::free};
}

// A server of our own, which ends with the connection.
nbd_handle* serve(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  nbd_handle* nbd = nbd_create();
  if (nbd && nbd_connect_systemd_socket_activation(nbd, argv.data()) == 0) return nbd;
  const std::string why = nbd_get_error();
  if (nbd) nbd_close(nbd);
  throw Failure(kFailed, "starting qemu-nbd: " + why, "install the package qemu-utils");
}

nbd_handle* connect_to(const std::string& uri) {
  nbd_handle* nbd = nbd_create();
  if (nbd && nbd_connect_uri(nbd, uri.c_str()) == 0 && nbd_is_read_only(nbd) == 0) return nbd;
  const bool read_only = nbd && nbd_aio_is_ready(nbd) == 1;
  const char* why = nbd_get_error();
  const std::string text = read_only ? "it can only be read" : why ? why : "no reason given";
  if (nbd) nbd_close(nbd);
  throw Failure(kFailed, fmt::format("connecting to {}: {}", uri, text),
                "check that the server runs, and serves a disk that can be written");
}

}  // namespace

uint64_t cluster_for(uint64_t extent_size) {
  return std::clamp(extent_size, kClusterMin, kClusterMax);
}

void create_image(const std::string& path, uint64_t size_bytes, uint64_t cluster_bytes,
                  const std::string& backing) {
  // The program keeps the mode of a file that is there.
  if (!UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600))) {
    throw failure_of(-errno, "making " + path);
  }
  std::vector<std::string> command = {
      "qemu-img",
      "create",
      "-q",
      "-f",
      "qcow2",
      "-o",
      fmt::format("cluster_size={},lazy_refcounts=off", cluster_bytes)};
  if (!backing.empty()) command.insert(command.end(), {"-b", backing, "-F", "qcow2"});
  command.push_back(path);
  command.push_back(std::to_string(size_bytes));
  run_or_throw(command);
}

ImageWriter::ImageWriter(const std::string& path, std::function<bool()> stop)
    : path_(path),
      stop_(std::move(stop)),
      memory_(aligned_memory(kSlots * kSlotBytes)),
      nbd_(serve({"qemu-nbd", "-f", "qcow2", "--cache=writeback", "--discard=unmap", path})) {
  divide_memory();
}

ImageWriter::ImageWriter(const ServerUri& server, std::function<bool()> stop)
    : path_(server.uri),
      stop_(std::move(stop)),
      memory_(aligned_memory(kSlots * kSlotBytes)),
      nbd_(connect_to(server.uri)) {
  divide_memory();
  can_zero_ = nbd_can_zero(nbd_) == 1;
  if (!can_zero_) zeros_.resize(kSlotBytes);
}

void ImageWriter::divide_memory() {
  for (size_t i = 0; i < kSlots; ++i) slots_[i].bytes = memory_.get() + i * kSlotBytes;
}

ImageWriter::~ImageWriter() {
  if (nbd_) nbd_close(nbd_);
}

void ImageWriter::fail(const char* doing) const {
  const char* why = nbd_get_error();
  throw Failure(kFailed, fmt::format("{} {}: {}", doing, path_, why ? why : "no reason given"),
                "look for free space at the destination");
}

int64_t ImageWriter::must(int64_t rc, const char* doing) const {
  if (rc < 0) fail(doing);
  return rc;
}

void ImageWriter::reap(Slot* slot) {
  std::erase_if(slot->cookies, [this](int64_t cookie) {
    return must(nbd_aio_command_completed(nbd_, static_cast<uint64_t>(cookie)), "writing") == 1;
  });
}

void ImageWriter::wait_for_progress() {
  if (must(nbd_poll(nbd_, kStopAskedEveryMs), "writing") == 1 || !stop_ || !stop_()) return;
  throw Failure(kFailed, "interrupted while waiting for " + path_);
}

void ImageWriter::wait_for(int64_t cookie, const char* doing) {
  const auto id = static_cast<uint64_t>(must(cookie, doing));
  while (must(nbd_aio_command_completed(nbd_, id), doing) == 0) wait_for_progress();
}

uint8_t* ImageWriter::next_buffer() {
  current_ = (current_ + 1) % kSlots;
  Slot& slot = slots_[current_];
  // Oldest first: its requests are the nearest to their end.
  for (reap(&slot); !slot.cookies.empty(); reap(&slot)) wait_for_progress();
  return slot.bytes;
}

void ImageWriter::write(const uint8_t* bytes, uint64_t length, uint64_t offset) {
  slots_[current_].cookies.push_back(
      must(nbd_aio_pwrite(nbd_, bytes, length, offset, NBD_NULL_COMPLETION, 0), "writing"));
}

void ImageWriter::zero(uint64_t length, uint64_t offset) {
  if (!can_zero_) {
    for (uint64_t done = 0; done < length; done += zeros_.size()) {
      write(zeros_.data(), std::min<uint64_t>(zeros_.size(), length - done), offset + done);
    }
    return;
  }
  slots_[current_].cookies.push_back(
      must(nbd_aio_zero(nbd_, length, offset, NBD_NULL_COMPLETION, 0), "writing"));
}

void ImageWriter::drain() {
  for (Slot& slot : slots_) {
    for (reap(&slot); !slot.cookies.empty(); reap(&slot)) wait_for_progress();
  }
  if (nbd_can_flush(nbd_) != 1) return;
  wait_for(nbd_aio_flush(nbd_, NBD_NULL_COMPLETION, 0), "flushing");
}

void ImageWriter::read(uint8_t* to, uint64_t length, uint64_t offset) {
  wait_for(nbd_aio_pread(nbd_, to, length, offset, NBD_NULL_COMPLETION, 0), "reading");
}

uint64_t ImageWriter::size() const {
  return static_cast<uint64_t>(must(nbd_get_size(nbd_), "asking for the size of"));
}

void ImageWriter::finish() {
  drain();
  must(nbd_shutdown(nbd_, 0), "closing");
  nbd_close(nbd_);  // waits for the server's end
  nbd_ = nullptr;
}

ImageReader::ImageReader(const std::string& path)
    : path_(path), nbd_(serve({"qemu-nbd", "-f", "qcow2", "--read-only", path})) {}

ImageReader::~ImageReader() { nbd_close(nbd_); }

void ImageReader::read(uint8_t* to, uint64_t length, uint64_t offset) {
  if (nbd_pread(nbd_, to, length, offset, 0) == 0) return;
  throw Failure(kFailed, fmt::format("reading {}: {}", path_, nbd_get_error()));
}

Copied copy_extents(int source_fd, const Extents& which, Sink* sink, bool leave_zeros,
                    const std::function<void(uint64_t)>& progress) {
  Copied copied;
  const uint64_t granule = cluster_for(which.extent_size());
  for (const Run& run : which.runs()) {
    const ByteRange range = which.range_of(run);
    for (uint64_t at = 0; at < range.length;) {
      const uint64_t length = std::min<uint64_t>(Sink::kSlotBytes, range.length - at);
      uint8_t* buffer = sink->next_buffer();
      read_at(source_fd, buffer, length, range.offset + at);
      queue(sink, buffer, length, range.offset + at, granule, leave_zeros, &copied);
      copied.read_bytes += length;
      progress(length);
      at += length;
    }
  }
  return copied;
}

Extents compare_extents(int device_fd, const Extents& which, ImageReader* image,
                        const std::function<void(uint64_t)>& progress) {
  Extents different(which.extent_cnt(), which.extent_size(), which.dev_size());
  const auto memory = aligned_memory(2 * Sink::kSlotBytes);
  uint8_t* const here = memory.get();
  uint8_t* const there = here + Sink::kSlotBytes;
  for (const Run& run : which.runs()) {
    const ByteRange range = which.range_of(run);
    for (uint64_t at = 0; at < range.length;) {
      const uint64_t first = range.offset + at;
      const uint64_t length = std::min<uint64_t>(Sink::kSlotBytes, range.length - at);
      read_at(device_fd, here, length, first);
      image->read(there, length, first);
      for (uint64_t k = 0; k < length; k += kCompared) {
        const uint64_t piece = std::min(kCompared, length - k);
        if (std::memcmp(here + k, there + k, piece) == 0) continue;
        different.set((first + k) / which.extent_size());
      }
      progress(length);
      at += length;
    }
  }
  return different;
}

void zero_extents(const Extents& which, Sink* sink) {
  for (const Run& run : which.runs()) {
    const ByteRange range = which.range_of(run);
    for (uint64_t at = 0; at < range.length; at += kZeroMax) {
      sink->next_buffer();  // bounds the requests in flight
      sink->zero(std::min(kZeroMax, range.length - at), range.offset + at);
    }
  }
}

}  // namespace snbf
