// SPDX-License-Identifier: GPL-2.0-only
// A point in use while it is still copied: a device-mapper mirror of an overlay of it and the target,
// which ends as the target alone.
//
// The overlay, served by qemu-nbd, takes every write that the target takes: until the copy is done, the
// overlay is the whole disk, whatever becomes of the target, of us, or of the machine's power. The kernel
// copies by itself; whoever looks after it may go and come back.
#pragma once

#include <cstdint>
#include <string>

namespace snbf {

struct InstantWish {
  std::string name;     // of /dev/mapper/NAME
  std::string image;    // the point's, absolute
  std::string scratch;  // folder for the overlay, absolute
  std::string target;   // a block device that nobody uses, absolute
  uint64_t size_bytes = 0;
};

class Instant {
 public:
  // Throws Failure if the name is none, or is something else's already.
  explicit Instant(InstantWish wish);

  // What was begun under this name: in the kernel, or as an overlay that outlived it.
  bool is_running() const { return !source_.empty(); }
  bool is_left_over() const { return left_over_; }

  // Ready to be mounted when this returns. Throws Failure, and nothing is left then but what was.
  void begin();
  // How much is copied, 0 to 100. Throws Failure if the overlay or the target fails.
  double percent() const;
  // The target alone from here on, and the overlay is gone.
  void finish();

  std::string device() const { return "/dev/mapper/" + wish_.name; }

 private:
  void look();
  void make_overlay();
  void serve();
  std::string overlay() const { return wish_.scratch + "/" + wish_.name + ".instant.qcow2"; }
  uint64_t sectors() const { return wish_.size_bytes / 512; }

  InstantWish wish_;
  std::string source_;  // the overlay's block device, while it is served
  bool left_over_ = false;
};

// What `dmsetup status` says of a mirror.
struct MirrorState {
  uint64_t done = 0;
  uint64_t all = 0;
  std::string health;  // a letter for each leg, 'A' while it works
};
// Throws Failure if that is no mirror's.
MirrorState mirror_state_of(const std::string& status);

}  // namespace snbf
