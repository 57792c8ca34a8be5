// SPDX-License-Identifier: GPL-2.0-only
#include "node_capture.h"

#include <fmt/format.h>

#include <cerrno>

#include "failure.h"
#include "output.h"
#include "snaps.h"

namespace snbf {

namespace {

libsnbf_level library_level(Level level) {
  switch (level) {
    case Level::Full:
      return LIBSNBF_LEVEL_FULL;
    case Level::Differential:
      return LIBSNBF_LEVEL_DIFF;
    case Level::Incremental:
      break;
  }
  return LIBSNBF_LEVEL_INCR;
}

int stands_in_manifest(void*, const char* destination, const char* point) {
  if (destination[0] != '/') return 0;  // of a program nobody can tell
  try {
    const auto manifest = read_manifest(destination);
    if (!manifest) return 0;
    for (const Point& known : manifest->points) {
      if (point_name(*manifest, known.id) == point) return 1;
    }
  } catch (const std::exception&) {
    // A destination that cannot be read has no point of ours.
  }
  return 0;
}

}  // namespace

NodeCapture::NodeCapture(const Driver& driver, const snbf_info& node)
    : driver_(driver), node_(node) {
  libsnbf_capture* capture = nullptr;
  const int rc = libsnbf_capture_open(driver.get(), node.minor, &capture);
  if (rc == -EBUSY) {
    throw Failure(kBusy, fmt::format("{}: another snbf is at work here", node.name),
                  "wait until it is done");
  }
  must(rc, fmt::format("taking the lock of {} in {}", node.name, bmp_dir_of(node)));
  capture_.reset(capture);
}

std::string NodeCapture::recover() {
  libsnbf_recovered found = LIBSNBF_RECOVERED_NOTHING;
  uint32_t snaps_left = 0;
  const int rc =
      libsnbf_capture_recover(capture_.get(), stands_in_manifest, nullptr, &found, &snaps_left);
  if (rc == -EXDEV) {
    throw Failure(kUnsafe,
                  fmt::format("{}/snbf{}.capture is of a backup of another node that was cut off",
                              bmp_dir_of(node_), node_.minor),
                  "remove the file once the next backup of that node is made with --level full");
  }
  must(rc, fmt::format("giving back what a backup of {} that was cut off had taken", node_.name));
  if (snaps_left) {
    warn("a snap of a backup that was cut off is still in use; the next backup takes it away");
  }
  switch (found) {
    case LIBSNBF_RECOVERED_NOTHING:
      break;
    case LIBSNBF_RECOVERED_COMMITTED:
      return "an earlier backup was cut off at its very end; it is complete";
    case LIBSNBF_RECOVERED_MERGED:
      return "an earlier backup was cut off; what it had taken counts as changed again";
    case LIBSNBF_RECOVERED_ALL:
      return "an earlier backup was cut off while it took the bitmap: every extent counts as "
             "changed";
  }
  return "";
}

void NodeCapture::begin(Level level, const std::string& destination, const std::string& point,
                        const std::string& cow_dir) {
  libsnbf_capture_request request{};
  request.level = library_level(level);
  request.destination = destination.c_str();
  request.point = point.c_str();
  request.cow_dir = cow_dir.empty() ? nullptr : cow_dir.c_str();
  const int rc = libsnbf_capture_begin(capture_.get(), &request);
  if (rc != 0 && !cow_dir.empty()) {
    NewSnap wanted;
    wanted.name = std::string(node_.name) + "-backup";
    wanted.cow_dir = cow_dir;
    throw snap_refusal(rc, node_, wanted);
  }
  must(rc, fmt::format("taking the bitmap of {}", node_.name));
  must(libsnbf_capture_source(capture_.get(), &source_, nullptr, 0), "asking what to copy");
}

Extents NodeCapture::wanted() const {
  Extents extents = driver_.empty_bitmap(node_);
  libsnbf_source about;
  must(libsnbf_capture_source(capture_.get(), &about, extents.bytes().data(),
                              static_cast<uint32_t>(extents.bytes().size())),
       "asking what to copy");
  return extents;
}

Extents NodeCapture::again() {
  Extents extents = driver_.empty_bitmap(node_);
  must(libsnbf_capture_again(capture_.get(), extents.bytes().data(),
                             static_cast<uint32_t>(extents.bytes().size())),
       fmt::format("taking the bitmap of {}", node_.name));
  return extents;
}

bool NodeCapture::valid() const { return libsnbf_capture_check(capture_.get()) == 0; }

Unsettled NodeCapture::unsettled() const {
  libsnbf_source about;
  must(libsnbf_capture_source(capture_.get(), &about, nullptr, 0), "asking what to copy");
  return {about.unsettled_cnt * about.extent_size, about.never_settles != 0};
}

void NodeCapture::seal() {
  const int rc = libsnbf_capture_seal(capture_.get());
  if (rc == -ENODATA) throw Failure(kSnapLost, "the snap was lost while it was copied");
  must(rc, fmt::format("merging into the bitmap of {}", node_.name));
}

void NodeCapture::tell_left(int snap_left) const {
  if (snap_left == 1) {
    note(fmt::format(
        "the backup's snap of {} ({}) holds parts of older snaps, and goes when they go",
        node_.name, source_.device));
  } else if (snap_left < 0) {
    warn(fmt::format(
        "{}; the next backup takes it away",
        failure_of(snap_left, fmt::format("deleting the snap {}", source_.device)).what()));
  }
}

void NodeCapture::commit() {
  int snap_left = 0;
  const int rc = libsnbf_capture_commit(capture_.get(), &snap_left);
  tell_left(snap_left);
  must(rc, fmt::format("writing the state record in {}", bmp_dir_of(node_)));
}

void NodeCapture::abort() noexcept {
  try {
    int snap_left = 0;
    const int rc = libsnbf_capture_abort(capture_.get(), &snap_left);
    tell_left(snap_left);
    if (rc == 0) return;
    warn(fmt::format("the bitmap could not be given back ({}); the next backup will do it",
                     failure_of(rc, node_.name).what()));
  } catch (const std::exception&) {
    // Out of memory for a message: what matters is done.
  }
}

}  // namespace snbf
