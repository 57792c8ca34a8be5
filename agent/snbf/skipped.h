// SPDX-License-Identifier: GPL-2.0-only
// What a point leaves out because the file system did not use it.
//
// Of each point holds: every extent that is not among its skipped ones is, byte for byte, what the
// device had at that moment; a skipped one was free then, and reads as zeros from the image. For
// that, the next point copies not only what changed: of what its parent skipped, it copies what is
// in use by then, whether it was written or not.
// A point's skipped extents stand in a file of their own beside its image, one bit each.
#pragma once

#include <string>

#include "extents.h"
#include "manifest.h"

namespace snbf {

// What becomes of the extents that a point has to account for: what changed, and what its parent
// skipped.
struct Sorted {
  Extents copied;
  Extents skipped;
  Extents zeroed;  // those of the skipped ones that something lies below, in the parent
};
// `parent_skipped`: null for a point without a parent.
Sorted sort_out(const Extents& changed, const Extents& used, const Extents* parent_skipped);

// Of the chain's device, no bit set.
Extents blank_extents(const Manifest& manifest);

// The name of the file of a point that skips something.
std::string skipped_name(uint64_t id);

// Writes the file and names it in the point; a point that skips nothing has none.
void store_skipped(const std::string& destination, const Extents& skipped, Point* point);

// Throws Failure if the file is not what was written.
Extents load_skipped(const Manifest& manifest, const Point& point, const std::string& destination);

// What is wrong with the file: a sentence, or empty.
std::string skipped_damage(const Point& point, const std::string& destination);

}  // namespace snbf
