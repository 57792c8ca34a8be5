// SPDX-License-Identifier: GPL-2.0-only
// What makes taking a bitmap safe against a crash. Beside the bitmap files of the node stands,
// while a backup is under way, one file:
//   1. "begins": a bitmap is about to be taken. Found after a crash: it may be lost, so every
//      extent counts as changed.
//   2. "captured", with the bits that were taken. Found after a crash: they are merged back.
//   3. the point stands in the manifest: the file goes.
#pragma once

#include <optional>
#include <string>

#include "extents.h"

namespace snbf {

struct CaptureRecord {
  bool captured = false;  // else only "begins"
  bool full = false;      // the Differential bitmap is taken too
  std::string node_uuid;  // empty: unknown, since the file is damaged
  std::string destination;
  std::string point;  // as the state record names it
  Extents incr;       // all that was taken since the capture began
  Extents diff;
};

std::string encode(const CaptureRecord& record);
// Nothing: damaged, and so worth no more than "begins".
std::optional<CaptureRecord> decode(const std::string& text);

class CaptureJournal {
 public:
  CaptureJournal(const std::string& bmp_dir, uint32_t minor);

  const std::string& path() const { return path_; }
  bool exists() const;
  // A damaged file reads as a full capture that only began, of an unknown point.
  std::optional<CaptureRecord> read() const;
  void write(const CaptureRecord& record) const;
  void drop() const;

 private:
  std::string path_;
};

}  // namespace snbf
