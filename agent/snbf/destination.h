// SPDX-License-Identifier: GPL-2.0-only
// A point as people name it, DEST or DEST@POINT, found and checked.
#pragma once

#include <string>

#include "files.h"
#include "manifest.h"
#include "output.h"

namespace snbf {

struct ChosenPoint {
  std::string destination;
  Manifest manifest;
  Point point;
};

// POINT is its number or its file's name; none means the newest. Throws Failure.
ChosenPoint choose_point(const std::string& text);

// As every verb prints a point in JSON.
Json point_json(const Point& point);

// A table of points, whose last column is the verb's own.
Table point_table(const char* last);
std::vector<std::string> point_cells(const Point& point, const std::string& last);

// Probes of what stands on a device or in a file: "ext4, labelled data", or empty.
std::string contents_of(const std::string& path);
// The kind of file system for certain, as mount(8) takes it, or empty.
std::string file_system_of(const std::string& path);
// Of the file system; empty if none is recognised for certain.
std::string uuid_of(const std::string& path);
std::string label_of(const std::string& path);

// A file whose lock keeps a chain as it is while it is read: shared by readers, exclusive for who
// takes points away.
std::string readers_lock(const std::string& destination);
struct HeldPoint {
  ChosenPoint chosen;
  UniqueFd lock;  // none on a file system that cannot be written: nobody takes anything away there
};
// As choose_point(), for as long as the lock is held. Throws kBusy too.
HeldPoint hold_point(const std::string& text);

}  // namespace snbf
