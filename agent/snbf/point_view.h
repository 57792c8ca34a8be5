// SPDX-License-Identifier: GPL-2.0-only
// A point as a raw file that programs may open, and write to: what they write is thrown away.
#pragma once

#include <cstdint>
#include <string>

namespace snbf {

// By qemu-storage-daemon through FUSE, over an overlay of the image; where one of them is
// missing, as a sparse copy, if there is room for one.
class PointView {
 public:
  // `data_bytes`: what a copy would take. Throws Failure if it can be had in neither way.
  PointView(const std::string& image, uint64_t size_bytes, uint64_t data_bytes);
  ~PointView();
  PointView(const PointView&) = delete;
  PointView& operator=(const PointView&) = delete;

  const std::string& path() const { return path_; }

 private:
  bool serve(const std::string& image, uint64_t size_bytes);
  void copy(const std::string& image, uint64_t data_bytes);

  std::string folder_;
  std::string path_;
  int server_ = 0;
};

}  // namespace snbf
