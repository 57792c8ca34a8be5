// SPDX-License-Identifier: GPL-2.0-only
// A node and its device, for what a backup goes to.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "files.h"
#include "image.h"
#include "store.h"

namespace snbf {

inline constexpr uint64_t kExtent = 65536;
inline constexpr uint64_t kExtents = 40;
inline constexpr uint64_t kSize = kExtents * kExtent - 512;

class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    char name[] = "/tmp/snbf-store-XXXXXX";
    directory_ = ::mkdtemp(name);
    std::strcpy(node_.name, "data");
    std::strcpy(node_.uuid, "{data}");
    std::strcpy(node_.incr_bmp_fname, (directory_ + "/snbf0.incr").c_str());
    node_.dev_size = kSize;
    node_.extent_size = kExtent;
  }
  ~StoreTest() override { std::filesystem::remove_all(directory_); }

  static Extents extents(const std::vector<uint64_t>& set) {
    Extents found(kExtents, kExtent, kSize);
    for (uint64_t extent : set) found.set(extent);
    return found;
  }
  static Extents all() {
    Extents found = extents({});
    found.set_all();
    return found;
  }
  // A device whose extents have a byte each.
  UniqueFd device(char first) {
    std::string bytes;
    for (uint64_t e = 0; e < kExtents; ++e)
      bytes += std::string(kExtent, static_cast<char>(first + e));
    bytes.resize(kSize);
    contents_ = bytes;
    replace_file(directory_ + "/device", bytes);
    return UniqueFd(::open((directory_ + "/device").c_str(), O_RDONLY | O_CLOEXEC));
  }
  void copy(Store* store, const UniqueFd& from, const Extents& which) {
    copy_extents(from.get(), which, &store->sink(), store->blank(), [](uint64_t) {});
  }
  std::string text_of(const std::string& file) const {
    std::ifstream in(directory_ + "/" + file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string directory_;
  std::string contents_;
  snbf_info node_{};
  Plan full_{Level::Full, kWhyWhole, "", nullptr};
};

}  // namespace snbf
