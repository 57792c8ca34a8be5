// SPDX-License-Identifier: GPL-2.0-only
// What can be told of a point beyond the hashes of its files.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "manifest.h"

namespace snbf {

// What is wrong with the image as such: a sentence, or empty. It must be a qcow2 of the chain's
// size, stand on its parent's image and on nothing else, and be sound.
std::string image_damage(const Manifest& manifest, const Point& point,
                         const std::string& destination);

// The same of every byte, through the chain. `progress` is called with the bytes read.
std::string reading_damage(const Manifest& manifest, const Point& point,
                           const std::string& destination,
                           const std::function<void(uint64_t)>& progress);

struct FileSystemFinding {
  std::string type;         // as blkid(8) names it; empty: none is recognised for certain
  std::string checked;      // by which program; empty: by none
  std::string not_checked;  // why by none: a sentence
  std::string damage;       // what is wrong: a sentence, or empty
};
// Looks at what stands in the point, on an overlay of it: nothing in the chain is written.
FileSystemFinding check_file_system(const Manifest& manifest, const Point& point,
                                    const std::string& destination);

// What the checkers' ends mean. `output`: all that it said.
FileSystemFinding judge_e2fsck(const std::string& type, int status, const std::string& output);
FileSystemFinding judge_xfs_repair(int status, const std::string& output);

}  // namespace snbf
