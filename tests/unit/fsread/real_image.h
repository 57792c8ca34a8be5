// Images made by the file systems' own tools, which also tell what is in use.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "parts_rig.h"

namespace snbf::sim {

// What the file system's own tools say about each of its blocks.
struct Truth {
  struct Range {
    u64 first;
    u64 end;
  };

  u32 block_size = 0;
  u64 blocks = 0;
  std::vector<Range> free = {};  // once finished: in order, and apart from each other

  void finish();
};

// A sparse file with a file system in it, gone with this object. Not inside a simulated task: the
// tools are processes.
class RealImage {
 public:
  // `tool` is a shell command, with "@" for the image's path and "%" for that of a folder with some
  // files in it.
  RealImage(u64 bytes, const std::string& tool);
  ~RealImage();
  RealImage(const RealImage&) = delete;
  RealImage& operator=(const RealImage&) = delete;

  void run(const std::string& command) const;
  // What the command prints.
  std::string output(const std::string& command) const;
  void truncate(u64 bytes) const;

  Truth ext_truth() const;       // by dumpe2fs
  Truth xfs_truth() const;       // by xfs_db
  Truth reiserfs_truth() const;  // by debugreiserfs

  u64 bytes() const;
  // All that is not a hole, in pages that are not zeros.
  const std::map<u64, Bytes>& pages() const;  // by offset

 private:
  std::string expand(const std::string& command) const;

  std::string path_;
  mutable std::map<u64, Bytes> pages_;
};

// A file system's blocks beside the map of the device that holds it.
struct Comparison {
  int rc = 0;                // of building the map
  u64 used_called_free = 0;  // chunks: must be none
  u64 free_called_used = 0;
  u64 free_chunks = 0;
  std::string log;
};

// `device_bytes` 0: as many as the image's. `damage`: other pages over some of the image's.
Comparison compare_with_truth(const RealImage& image, const Truth& truth, u32 chunk_size,
                              u64 device_bytes = 0, const std::map<u64, Bytes>& damage = {});

// What the driver's own self-test says of it.
int self_test(const RealImage& image);

}  // namespace snbf::sim
