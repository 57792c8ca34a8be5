// SPDX-License-Identifier: GPL-2.0-only
// A program: it reads the whole image from its input, and its exit status says whether it has kept
// it.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "failure.h"
#include "files.h"
#include "shell.h"
#include "signals.h"
#include "store.h"

namespace snbf {

namespace {

constexpr int kInterruptionSeenMs = 200;

// Bytes in their order; what is left out in between is zeros.
class PipeSink : public Sink {
 public:
  PipeSink(int fd, uint64_t size) : fd_(fd), size_(size), zeros_(kSlotBytes) {
    void* raw = nullptr;
    if (::posix_memalign(&raw, 4096, kSlotBytes) != 0) throw std::bad_alloc();
    buffer_.reset(static_cast<uint8_t*>(raw));
  }

  uint8_t* next_buffer() override { return buffer_.get(); }
  void write(const uint8_t* bytes, uint64_t length, uint64_t offset) override {
    assert(offset >= at_);  // a snap is copied once, from its beginning to its end
    fill(offset);
    put(bytes, length);
  }
  void zero(uint64_t length, uint64_t offset) override { fill(offset + length); }
  void finish() override { fill(size_); }

 private:
  void fill(uint64_t until) {
    while (at_ < until) put(zeros_.data(), std::min<uint64_t>(zeros_.size(), until - at_));
  }
  void put(const uint8_t* bytes, uint64_t length) {
    for (uint64_t done = 0; done < length;) {
      const ssize_t n = ::write(fd_, bytes + done, length - done);
      if (n >= 0) {
        done += static_cast<uint64_t>(n);
      } else if (errno == EAGAIN || errno == EINTR) {
        wait_for_room();
      } else if (errno == EPIPE) {
        throw Failure(kFailed, fmt::format("the program stopped reading at byte {}", at_ + done),
                      "what it printed says why");
      } else {
        throw failure_of(-errno, "writing to the program");
      }
    }
    at_ += length;
  }
  // A program that hangs must not take us with it.
  void wait_for_room() {
    pollfd room{fd_, POLLOUT, 0};
    ::poll(&room, 1, kInterruptionSeenMs);
    end_if_interrupted();
  }

  struct Free {
    void operator()(uint8_t* memory) const { ::free(memory); }
  };
  int fd_;
  uint64_t size_;
  uint64_t at_ = 0;
  std::vector<uint8_t> zeros_;
  std::unique_ptr<uint8_t, Free> buffer_;
};

class PipeStore : public Store {
 public:
  PipeStore(const snbf_info& node, const std::string& command) : node_(node), command_(command) {}
  ~PipeStore() override { PipeStore::discard(); }

  std::string place() const override { return command_; }

  Point open(const Plan& plan) override {
    Point point;
    point.id = static_cast<uint64_t>(::time(nullptr));
    point.level = plan.level;
    point.why = plan.why;
    return point;
  }

  // The program is started with the first byte: it must not hold what the hooks wait for.
  Sink& sink() override {
    if (!sink_) start();
    return *sink_;
  }
  bool blank() const override { return true; }
  const Extents* parent_skipped() const override { return nullptr; }
  bool is_parent() const override { return false; }
  std::string journal_folder() const override { return "pipe"; }
  std::string journal_point(const Point& point) const override {
    return fmt::format("pipe:{}", point.id);
  }

  void land(Point* point) override {
    sink().finish();
    input_.reset();
    int status = 0;
    constexpr auto kForever = std::chrono::steady_clock::time_point::max();
    if (!wait_for_child(child_, kForever, SignalsNoted::any, &status)) end_if_interrupted();
    child_ = -1;
    const ShellEnd end = shell_end_of(status);
    if (!end.good()) {
      throw Failure(kFailed, fmt::format("the program {}: {}", end.text(), command_),
                    "what it printed says why; the bitmap is as it was");
    }
    point->file_bytes = node_.dev_size;
  }
  void commit(Point* point, const Extents&, const Extents& skipped) override {
    point->skipped_extents = skipped.count();
    point->skipped_bytes = skipped.covered_bytes();
  }
  // A program that reads to the end of its input must not take a part for the whole: it is killed
  // before that end comes.
  void discard() noexcept override {
    if (child_ > 0) {
      int status = 0;
      end_group(child_, &status);
      child_ = -1;
    }
    input_.reset();
  }

 private:
  void start() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) throw failure_of(-errno, "starting " + command_);
    const UniqueFd reading(ends[0]);
    input_ = UniqueFd(ends[1]);
    if (::fcntl(input_.get(), F_SETFL, O_NONBLOCK) < 0) throw failure_of(-errno, command_);
    child_ = start_shell(command_, {{"SNBF_NODE", node_.name}}, reading.get());
    sink_ = std::make_unique<PipeSink>(input_.get(), node_.dev_size);
  }

  const snbf_info& node_;
  std::string command_;
  UniqueFd input_;
  pid_t child_ = -1;
  std::unique_ptr<PipeSink> sink_;
};

}  // namespace

std::unique_ptr<Store> pipe_store(const snbf_info& node, const std::string& command) {
  return std::make_unique<PipeStore>(node, command);
}

}  // namespace snbf
