// SPDX-License-Identifier: GPL-2.0-only
// What makes taking a bitmap safe against a crash. Beside the bitmap files of the node stands,
// while a capture is under way, the file snbf<minor>.capture:
//   1. "begins": a bitmap is about to be taken. Found after a crash: it may be lost, so every
//      extent counts as changed.
//   2. "captured", with the bits that were taken. Found after a crash: they are merged back.
//   3. the point stands at its destination: the file goes.
// Layout: a heading, lines of key=value, an empty line, the bits, and the XXH3-64 of all that in
// 16 hexadecimal digits.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace snbf::lib {

using Bits = std::vector<uint8_t>;

struct CaptureRecord {
  bool captured = false;  // else only "begins"
  bool full = false;      // the Differential bitmap is taken too
  std::string node_uuid;  // empty: unknown, since the file is damaged
  std::string destination;
  std::string point;  // as the state record names it
  int64_t time = 0;   // when the bits were last taken, in seconds since 1970
  Bits incr;          // all that was taken since the capture began; empty unless `captured`
  Bits diff;          // the same, of a full capture
};

// No text of the record has a line's end.
std::string encode(const CaptureRecord& record);
// Nothing: damaged, and so worth no more than "begins".
std::optional<CaptureRecord> decode(const std::string& text);

// 0 or negated error numbers.
class CaptureJournal {
 public:
  CaptureJournal(const std::string& bmp_dir, uint32_t minor);

  // Nothing: there is no file. A damaged one reads as a full capture that only began, of an
  // unknown point. One of an earlier version has the time of its file.
  int read(std::optional<CaptureRecord>* out) const;
  int write(const CaptureRecord& record) const;  // -EINVAL: a text has a line's end
  int drop() const;

 private:
  std::string path_;
};

}  // namespace snbf::lib
