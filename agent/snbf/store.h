// SPDX-License-Identifier: GPL-2.0-only
// Where a point goes, and by what the next one finds it again.
#pragma once

#include <memory>
#include <string>

#include "driver.h"
#include "manifest.h"
#include "plan.h"
#include "sink.h"

namespace snbf {

inline constexpr const char* kNothingKept = "nothing was kept";
inline constexpr const char* kWhyWhole = "whole-image";  // of reasons.h: why it is full

// Order: open(), before anything is taken; copies into sink(); land(); commit(). discard() in place
// of what has not happened yet.
class Store {
 public:
  virtual ~Store() = default;

  // As people name it.
  virtual std::string place() const = 0;
  // The point as far as the plan knows it.
  virtual Point open(const Plan& plan) = 0;
  virtual Sink& sink() = 0;
  // Nothing lies below what is not written: it reads as zeros.
  virtual bool blank() const = 0;
  // Of what the new point stands on; null: on nothing.
  virtual const Extents* parent_skipped() const = 0;
  // What the parent skipped reads as zeros; else all that is skipped is made to.
  virtual bool parent_skipped_is_zero() const { return true; }
  // Something later can stand on the point: the bitmaps are to count from it.
  virtual bool is_parent() const { return true; }
  // For the journal: the folder whose manifest names the point once it is committed, and that name.
  virtual std::string journal_folder() const = 0;
  virtual std::string journal_point(const Point& point) const = 0;
  // All bytes are durable, but nothing names them.
  virtual void land(Point* point) = 0;
  // From here the point is one.
  virtual void commit(Point* point, const Extents& copied, const Extents& skipped) = 0;
  virtual void discard() noexcept = 0;
  // What an end before the commit leaves at the destination, as part of a sentence.
  virtual std::string left_behind() const { return kNothingKept; }
};

// A directory with a chain of qcow2 images; `manifest` is what it has now. The caller holds the
// directory's lock. A signal that is noted (signals.h) ends a store's waits, here and below.
std::unique_ptr<Store> directory_store(const snbf_info& node, const std::string& directory,
                                       const Manifest& manifest);

// A program that reads the whole image from its input.
std::unique_ptr<Store> pipe_store(const snbf_info& node, const std::string& command);

// Throws Failure once a signal is noted. `left`: see Store::left_behind().
void end_if_interrupted(const std::string& left = kNothingKept);

// What every manifest says of its node.
void describe_node(const snbf_info& node, Manifest* manifest);

}  // namespace snbf
