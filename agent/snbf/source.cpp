// SPDX-License-Identifier: GPL-2.0-only
#include "source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "failure.h"
#include "output.h"

namespace snbf {

namespace {

constexpr auto kDrainStep = std::chrono::milliseconds(10);
constexpr int kDrainStepsMax = 200;
constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_DIRECT;
constexpr size_t kNodeNameShown = 64;

}  // namespace

void sync_mounts(const snbf_info& node) {
  for (const std::string& mount : mounts_of(device_of(node_path(node)))) {
    UniqueFd directory(::open(mount.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::syncfs(directory.get()) < 0) throw failure_of(-errno, "syncing " + mount);
  }
}

LiveSource::LiveSource(const snbf_info& node) : node_(node) {
  const std::string path = node_path(node);
  mounts_ = mounts_of(device_of(path));
  // Exclusive: nothing can be mounted while we copy what is not mounted now.
  fd_ = UniqueFd(::open(path.c_str(), kReadFlags | O_EXCL));
  exclusive_ = static_cast<bool>(fd_);
  if (!fd_ && errno == EBUSY) fd_ = UniqueFd(::open(path.c_str(), kReadFlags));
  if (!fd_) throw failure_of(-errno, "opening " + path);
}

bool LiveSource::drain(const std::function<bool()>& stop) const {
  const dev_t partition = partition_of(node_);
  if (partition == 0) return false;
  const std::string path =
      fmt::format("/sys/dev/block/{}:{}/inflight", major(partition), minor(partition));
  for (int step = 0; step < kDrainStepsMax && !stop(); ++step) {
    std::this_thread::sleep_for(kDrainStep);
    std::ifstream file(path);
    uint64_t reads = 0;
    uint64_t writes = 0;
    if (!(file >> reads >> writes)) return false;
    if (writes == 0) return true;
  }
  return false;
}

SnapSource::SnapSource(const Driver& driver, const snbf_info& node, const std::string& cow_dir)
    : driver_(driver) {
  NewSnap wanted;
  wanted.name = std::string(node.name).substr(0, kNodeNameShown) + "-backup";
  wanted.cow_dir = cow_dir;
  wanted.temporary = true;
  made_ = make_snap(driver, node, wanted);
  const std::string path = snap_path(made_.node);
  fd_ = UniqueFd(::open(path.c_str(), kReadFlags));
  if (fd_) return;
  const Failure failure = failure_of(-errno, "opening " + path);
  drop();
  throw failure;
}

SnapSource::~SnapSource() {
  try {
    drop();
  } catch (const std::exception& error) {
    warn(fmt::format("{}; the next backup takes it away", error.what()));
  }
}

bool SnapSource::valid() const {
  snbf_info now;
  return libsnbf_get_info(driver_.get(), made_.node.minor, &now) == 0 &&
         std::strcmp(now.uuid, made_.node.uuid) == 0 && now.started && now.snap_valid;
}

void SnapSource::drop() {
  if (!there_) return;
  fd_.reset();
  int postponed = 0;
  must(delete_snap(driver_, made_.node, &postponed),
       fmt::format("deleting the snap {}", made_.node.name));
  there_ = false;
  if (postponed) {
    note(fmt::format("the backup's snap {} holds parts of older snaps, and goes when they go",
                     made_.node.name));
  }
}

}  // namespace snbf
