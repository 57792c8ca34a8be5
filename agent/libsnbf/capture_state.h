// SPDX-License-Identifier: GPL-2.0-only
// A capture under way: what it has taken, and how far it is. See capture.cpp.
#pragma once

#include <fcntl.h>

#include <optional>
#include <string>

#include "capture_journal.h"
#include "handle.h"
#include "libsnbf_capture.h"

namespace snbf::lib {

// Failed: a later taking has cleared what nobody was given to read.
enum class Stage { Open, Begun, Failed, Sealed };

// Of the writes that were under way when bits were taken.
enum class Drained {
  Yes,
  NotYet,
  Untold,  // the system does not say, and hardly ever will
};

// What this capture knows of the bits that it may have cleared.
enum class Taken { Nothing, Unknown, Known };

}  // namespace snbf::lib

struct libsnbf_capture {
  using Bits = snbf::lib::Bits;
  using Stage = snbf::lib::Stage;
  using Taken = snbf::lib::Taken;
  using Drained = snbf::lib::Drained;

  libsnbf_capture(libsnbf* owner, const snbf_info& filter)
      : handle(owner),
        node(filter),
        dir(snbf::lib::bmp_dir_of(filter)),
        lock_path(dir + "/snbf" + std::to_string(filter.minor) + ".lock"),
        lock(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)),
        journal(dir, filter.minor) {}

  int take_lock();
  int recover(libsnbf_capture_known_fn known, void* context, libsnbf_recovered* out,
              uint32_t* snaps_left);
  int begin(const libsnbf_capture_request& request);
  int take(bool with_diff, Bits* now);
  int read_source(libsnbf_source* out, void* bits, uint32_t size);
  int again(Bits* now);
  int check();
  int seal();
  int commit();
  int give_back();
  int drop_snap();

 private:
  int see_node();
  int see_store(libsnbf_state* state = nullptr);
  int drop_journal();
  int prepare(const libsnbf_capture_request& request);
  int make_snap(const char* cow_dir);
  int add_marked(uint32_t type);
  Bits settle(const Bits& just_taken);
  int write_journal(bool with_bits);
  int merge_back(const snbf::lib::CaptureRecord& record);
  int count_everything(bool full);
  int record_point(const std::string& name, bool full, int64_t time);
  int distrust();
  int settle_left(const snbf::lib::CaptureRecord& left, bool is_known, libsnbf_recovered* out);
  int remove_left_over(uint32_t* left);
  int delete_node(uint32_t minor, const char* uuid, int* postponed);

  libsnbf* handle;
  snbf_info node;
  std::string dir;
  std::string lock_path;
  snbf::lib::Fd lock;
  snbf::lib::CaptureJournal journal;
  Stage stage = Stage::Open;
  libsnbf_level level = LIBSNBF_LEVEL_INCR;
  snbf::lib::CaptureRecord record;  // what the journal has, or would have
  Taken taken = Taken::Nothing;
  Bits wanted;     // B1, and with a snap B2 and what else the level asks for
  Bits unsettled;  // taken, and perhaps still on their way to the partition when they were read
  Drained drained = Drained::Yes;  // as it was last asked
  std::optional<snbf_info> snap;
  uint64_t start_us = 0;
};
