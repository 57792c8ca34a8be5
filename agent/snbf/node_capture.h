// SPDX-License-Identifier: GPL-2.0-only
// libsnbf's capture, in the tool's own types; refusals become Failures.
#pragma once

#include <memory>
#include <string>

#include "driver.h"
#include "libsnbf_capture.h"
#include "manifest.h"

namespace snbf {

// What was taken and may have been read before it had landed.
struct Unsettled {
  uint64_t bytes = 0;
  bool is_for_good = false;  // it cannot be told

  bool may_settle() const { return bytes != 0 && !is_for_good; }
};

// The order of the calls is told in libsnbf.h.
class NodeCapture {
 public:
  // With the node's lock. Throws kBusy.
  NodeCapture(const Driver& driver, const snbf_info& node);

  // Gives back what a backup that was cut off had taken. Answers a sentence about it, or nothing.
  // Throws when the journal is another node's.
  std::string recover();

  // `cow_dir` is empty: without a snap. Throws; then nothing is taken.
  void begin(Level level, const std::string& destination, const std::string& point,
             const std::string& cow_dir);
  const libsnbf_source& source() const { return source_; }
  // What the point has to account for.
  Extents wanted() const;
  // What was written since, taken as well; only without a snap. And what has settled by now.
  Extents again();
  // False: the snap is lost.
  bool valid() const;
  Unsettled unsettled() const;
  // That counts as changed again. Throws if the snap is lost.
  void seal();

  // The device is closed by now. Says so if the snap stays for a while.
  void commit();
  // Never throws: what cannot be given back now is given back by the next backup.
  void abort() noexcept;

 private:
  struct Close {
    void operator()(libsnbf_capture* capture) const { libsnbf_capture_close(capture); }
  };
  void tell_left(int snap_left) const;

  const Driver& driver_;
  snbf_info node_;
  std::unique_ptr<libsnbf_capture, Close> capture_;
  libsnbf_source source_{};
};

}  // namespace snbf
