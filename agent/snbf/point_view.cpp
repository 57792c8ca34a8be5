// SPDX-License-Identifier: GPL-2.0-only
#include "point_view.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "failure.h"
#include "files.h"
#include "image.h"
#include "sizes.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kOverlayCluster = 65536;
constexpr auto kEndStep = std::chrono::milliseconds(20);
constexpr int kEndSteps = 500;

std::string new_folder() {
  const char* parent = std::getenv("TMPDIR");
  std::string name = std::string(parent && parent[0] ? parent : "/var/tmp") + "/snbf-point-XXXXXX";
  if (!::mkdtemp(name.data())) throw failure_of(-errno, "making a folder in " + folder_of(name));
  return name;
}

}  // namespace

PointView::PointView(const std::string& image, uint64_t size_bytes, uint64_t data_bytes)
    : folder_(new_folder()), path_(folder_ + "/point") {
  try {
    if (!serve(image, size_bytes)) copy(image, data_bytes);
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    throw;
  }
}

PointView::~PointView() {
  if (server_ > 0) ::kill(server_, SIGTERM);
  // It is no child of ours; its mount goes with it, and only then can the folder go.
  for (int i = 0; server_ > 0 && i < kEndSteps && ::kill(server_, 0) == 0; ++i) {
    std::this_thread::sleep_for(kEndStep);
  }
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

bool PointView::serve(const std::string& image, uint64_t size_bytes) {
  const std::string overlay = folder_ + "/overlay.qcow2";
  create_image(overlay, size_bytes, kOverlayCluster, image);
  std::ofstream(path_).close();
  const std::string pid_file = folder_ + "/pid";
  const Ran ran =
      run({"qemu-storage-daemon", "--blockdev", "driver=file,node-name=file,filename=" + overlay,
           "--blockdev", "driver=qcow2,node-name=point,file=file", "--export",
           "type=fuse,id=view,node-name=point,writable=on,mountpoint=" + path_, "--daemonize",
           "--pidfile", pid_file});
  if (ran.status == 0) std::ifstream(pid_file) >> server_;
  return ran.status == 0;
}

void PointView::copy(const std::string& image, uint64_t data_bytes) {
  const uint64_t free_bytes = fs::space(folder_).available;
  if (free_bytes < data_bytes) {
    throw Failure(kFailed,
                  fmt::format("FUSE or qemu-storage-daemon is missing, and {} has no room for a "
                              "copy of {}",
                              folder_of(folder_), show_size(data_bytes)),
                  "`modprobe fuse` and the package qemu-system-common, or a roomier folder in "
                  "TMPDIR");
  }
  run_or_throw({"qemu-img", "convert", "-f", "qcow2", "-O", "raw", image, path_});
}

}  // namespace snbf
