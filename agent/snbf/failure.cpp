// SPDX-License-Identifier: GPL-2.0-only
#include "failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace snbf {

namespace {

struct Sentence {
  int error;
  Exit status;
  const char* what;
  const char* remedy;
};

constexpr Sentence kSentences[] = {
    {EINVAL, kFailed, "the driver refused the request",
     "the line that says why is the last one of `dmesg | grep snbf`"},
    {ENOENT, kFailed, "no such file or device", "check the path"},
    {ENODEV, kNoDriver, "the driver is not loaded", "load it with `modprobe snbf`"},
    {ENOTTY, kNoDriver, "the control device does not know this command",
     "the loaded module is of another version: reload it"},
    {EFAULT, kFailed, "the driver could not reach the tool's memory, or had none left",
     "free some memory and try again"},
    {EBUSY, kBusy, "the device is in use", "close or unmount what holds it, or use --wait"},
    {EALREADY, kFailed, "it has already been started", "nothing needs to be done"},
    {EAGAIN, kBusy, "the file system did not come to rest in time", "try again when it is quieter"},
    {ENOMEM, kFailed, "the kernel has not enough memory",
     "free some memory, or use larger extents: they need smaller bitmaps"},
    {ENOSPC, kFailed, "there is no room left",
     "free some space; if it is minors that ran out, load the driver with a larger "
     "snbf_max_blk_minor"},
    {EIO, kFailed, "reading or writing failed",
     "look at `dmesg` for the device that failed; a node must be started before it is used"},
    {EOPNOTSUPP, kFailed, "the loaded driver does not do this yet", "use a newer module"},
    {EACCES, kFailed, "permission denied", "run it as root"},
    {EPERM, kFailed, "permission denied", "run it as root"},
    {EROFS, kFailed, "the file system is read-only", "choose another place"},
    {EILSEQ, kMisused, "the name cannot be used",
     "use letters, digits, '_', '-' and '.', not a '.' first; not control, and no other node's "
     "snbfN"},
    {EEXIST, kFailed, "another node has this name", "choose another name, or detach that node"},
    {ENOTBLK, kMisused, "this is not a block device", "give a partition such as /dev/sdb1"},
    {ENOTDIR, kMisused, "this is not a directory",
     "make it first, or choose another with --bitmaps"},
    {ERANGE, kMisused, "the minor is out of range",
     "use one below the driver's snbf_max_blk_minor, or none at all"},
    {ELOOP, kUnsafe, "the directory lies on the tracked partition itself, or on what is kept there",
     "choose a directory on another device"},
    {EMEDIUMTYPE, kUnsafe, "the bitmap files belong to another partition",
     "choose another directory, or take them over with `snbf attach --adopt`"},
    {ENOLINK, kUnsafe, "the record of a node is not in its bitmap directory",
     "mount the file system that holds it again; or detach that node: its next backup is then a "
     "full one"},
    {ESTALE, kFailed, "the partition was written meanwhile", "make a new snap"},
    {ENODATA, kSnapLost, "the driver gave the snap up as it came back",
     "look at `dmesg`; delete it, and make a new one"},
    {ENAMETOOLONG, kMisused, "a path is too long", "use paths of at most 1023 characters"},
    {EPROTO, kNoDriver, "the driver answered something that cannot be",
     "the loaded module is of another version: reload it"},
    {EBADMSG, kFailed, "a file is damaged", "see the message before this one"},
};

}  // namespace

std::span<const ExitMeaning> exit_meanings() {
  static constexpr ExitMeaning kMeanings[] = {
      {kDone, "done"},
      {kFailed, "failed"},
      {kMisused, "misused"},
      {kWarned, "done with warnings"},
      {kSnapLost, "a snap was lost on the way"},
      {kNoDriver, "driver missing or kernel not supported"},
      {kUnsafe, "refused as unsafe"},
      {kDiffers, "verify found a difference"},
      {kBusy, "busy"},
  };
  return kMeanings;
}

std::string exit_statuses() {
  std::string text = "Exit status:";
  for (const ExitMeaning& exit : exit_meanings()) {
    text += fmt::format(" {} {}{}", static_cast<int>(exit.status), exit.meaning,
                        exit.status == kBusy ? "." : ",");
  }
  return text;
}

Failure failure_of(int rc, const std::string& doing) {
  for (const Sentence& sentence : kSentences) {
    if (sentence.error == -rc) {
      return {sentence.status, fmt::format("{}: {}", doing, sentence.what), sentence.remedy, rc};
    }
  }
  return {kFailed, fmt::format("{}: {}", doing, std::strerror(-rc)), "", rc};
}

void must(int rc, const std::string& doing) {
  if (rc != 0) throw failure_of(rc, doing);
}

}  // namespace snbf
