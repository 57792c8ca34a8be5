// SPDX-License-Identifier: GPL-2.0-only
// Whole images by qemu-img: written out, compared, measured.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace snbf {

// The first `size_bytes` of a device or of a raw file.
struct RawPlace {
  std::string path;  // absolute
  bool is_device = false;
  uint64_t size_bytes = 0;
};

// What a program that was attended ended with.
enum class Ended { Well, Stopped };

// How far it is, 0 to 100.
using Percent = std::function<void(double)>;

// The image's bytes, through its chain, onto the place; a file is made, and sparse. On the disk
// when it answers. `stop` is asked several times a second. Throws Failure.
Ended write_out(const std::string& image, const RawPlace& place, const Percent& percent,
                const std::function<bool()>& stop);

// Reads the place back past the page cache, where its file system can do that. `difference` is the
// byte at or before which the two begin to differ; nothing if they are equal.
Ended compare_with(const std::string& image, const RawPlace& place, const Percent& percent,
                   const std::function<bool()>& stop, std::optional<uint64_t>* difference);

// Bytes that the image holds through its chain; all else reads as zeros.
uint64_t data_bytes_of(const std::string& image);

// What qemu-img prints on its way, "    (12.34/100%)\r": the last share in it.
std::optional<double> percent_in(std::string_view text);

}  // namespace snbf
