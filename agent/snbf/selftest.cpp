// SPDX-License-Identifier: GPL-2.0-only
#include "selftest.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

namespace snbf {

namespace {

bool any_has(const std::vector<std::string>& lines, const char* text) {
  return std::any_of(lines.begin(), lines.end(), [text](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

bool found_a_difference(const std::vector<std::string>& lines) {
  static constexpr const char* kDifferences[] = {"Oops. Bit ", "is misrepresented by blkbmp",
                                                 "Bitmap inconsistency for chunk",
                                                 "Failed to downsample bitmap"};
  return std::any_of(std::begin(kDifferences), std::end(kDifferences),
                     [&lines](const char* text) { return any_has(lines, text); });
}

}  // namespace

Verdict judge_selftest(int rc, const std::vector<std::string>& lines, const std::string& contents) {
  const std::string on_it = contents.empty() ? "nothing that is recognised" : contents;
  if (rc == 0) {
    return {
        "good", kDone,
        fmt::format("{}: the map of used blocks is the same in every size it was read in", on_it),
        ""};
  }
  if (rc == -EBUSY) {
    return {"busy", kBusy, "it is mounted, and changes while it is read",
            "unmount it, or test a snap of it"};
  }
  if (found_a_difference(lines)) {
    return {
        "wrong", kDiffers, fmt::format("{}: the driver's maps of it contradict each other", on_it),
        "take no snap of it, and check the file system with its own tool; if that finds nothing, "
        "it is a fault of the driver"};
  }
  if (rc == -EINVAL && any_has(lines, "Cannot recognize file system")) {
    return {
        "unknown", kFailed,
        fmt::format("{}: no reader of the driver claims it, so there is nothing to test", on_it),
        "nothing needs to be done: snaps of it work, and copy free space too"};
  }
  const Failure failure = failure_of(rc, "the test");
  return {"failed", failure.status(), failure.what(), failure.remedy()};
}

}  // namespace snbf
