// SPDX-License-Identifier: GPL-2.0-only
// A point in use while it is still copied: a device-mapper mirror of an overlay of it and the target,
// which ends as the target alone.
//
// The overlay, served by qemu-nbd, takes every write that the target takes: until the copy is done, the
// overlay is the whole disk, whatever becomes of the target, of us, or of the machine's power. The kernel
// copies by itself; whoever looks after it may go and come back, and be cut off at any point of the end too
// (instant_state.h).
#pragma once

#include <cstdint>
#include <string>

#include "files.h"
#include "instant_state.h"

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
  // Only looks. Throws Failure if the name is none, or is something else's already.
  explicit Instant(InstantWish wish);

  Stage stage() const { return stage_; }
  // More than an overlay is there: it goes on, whatever is wished.
  bool is_begun() const { return stage_ != Stage::None && stage_ != Stage::LeftOver; }
  // Of the point that is being restored, once it is begun.
  std::string image() const;

  // The one who looks after it from here on, until this object goes: a device that somebody has left
  // suspended is in use again when this returns. Throws kBusy too.
  void take_over();
  // Ready to be mounted when this returns. Throws Failure, and nothing is left then but what was.
  void begin();
  // How much is copied, 0 to 100. Throws Failure if the overlay or the target fails.
  double percent() const;
  // The target alone from here on, and the overlay is gone. If it throws, the device is in use as before,
  // and another call can end it.
  void finish();

  std::string device() const { return "/dev/mapper/" + wish_.name; }

 private:
  void look();
  void check_places() const;
  void make_overlay();
  void complete();
  void switch_over();
  void bring_on();
  void bring_back() noexcept;
  void clean_up();
  Mark read_mark() const;
  void drop_mark();
  std::string overlay() const { return wish_.scratch + "/" + wish_.name + ".instant.qcow2"; }
  std::string mark() const { return wish_.scratch + "/" + wish_.name + ".instant.whole"; }
  uint64_t sectors() const { return wish_.size_bytes / 512; }

  InstantWish wish_;
  std::string source_;  // the overlay's block device, while it is served
  Stage stage_ = Stage::None;
  bool suspended_ = false;
  UniqueFd lock_;
};

}  // namespace snbf
