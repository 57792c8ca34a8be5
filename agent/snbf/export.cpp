// SPDX-License-Identifier: GPL-2.0-only
#include "export.h"

#include <fmt/format.h>
#include <libnbd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "failure.h"
#include "files.h"
#include "image.h"
#include "signals.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kSectorBytes = 512;
constexpr auto kStep = std::chrono::milliseconds(50);
constexpr int kReadySteps = 600;
constexpr int kEndSteps = 200;
constexpr const char* kClients = "64";

sockaddr_un address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw Failure(kMisused, fmt::format("{} is too long for a socket", path),
                  fmt::format("use a path of at most {} characters", sizeof address.sun_path - 1));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

// The server lets clients in as soon as it has the socket; only a whole handshake says that it has
// the export, too.
bool serves(const std::string& path, const std::string& name) {
  const std::unique_ptr<nbd_handle, decltype(&nbd_close)> client(nbd_create(), nbd_close);
  return client && nbd_set_export_name(client.get(), name.c_str()) == 0 &&
         nbd_connect_unix(client.get(), path.c_str()) == 0 && nbd_shutdown(client.get(), 0) == 0;
}

bool answers(const std::string& path) {
  const sockaddr_un address = address_of(path);
  const UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return client &&
         ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// One small write an extent: the bitmap that is being recorded notes it. Never zeros by request:
// those would be let through to the data file's map instead.
void mark(const std::string& image, const Extents& changed) {
  ImageWriter writer(image);
  for (const Run& run : changed.runs()) {
    for (uint64_t extent = run.first; extent < run.first + run.count; ++extent) {
      uint8_t* buffer = writer.next_buffer();
      std::memset(buffer, 0, kSectorBytes);
      const ByteRange range = changed.range_of({extent, 1});
      writer.write(buffer, std::min(kSectorBytes, range.length), range.offset);
    }
  }
  writer.finish();
}

pid_t start(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child != 0) return child;
  // Of its own group: what a terminal sends is for us, and we end it.
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() == parent) ::execvp(argv[0], argv.data());
  ::_exit(127);
}

}  // namespace

BitmapImage::BitmapImage(const Extents& changed, const std::string& name) {
  std::string folder = "/run/snbf-export-XXXXXX";
  if (!::mkdtemp(folder.data())) throw failure_of(-errno, "making a folder in /run");
  folder_ = folder;
  path_ = folder_ + "/image.qcow2";
  try {
    run_or_throw({"qemu-img", "create", "-q", "-f", "qcow2", "-o",
                  fmt::format("data_file={}/scratch,data_file_raw=on", folder_), path_,
                  std::to_string(changed.dev_size())});
    run_or_throw({"qemu-img", "bitmap", "--add", "-g", std::to_string(changed.extent_size()), "-f",
                  "qcow2", path_, name});
    mark(path_, changed);
    // Nobody reads it any more: the server is given the device in its place.
    remove_file(folder_ + "/scratch");
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    throw;
  }
}

BitmapImage::~BitmapImage() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::string export_uri(const ExportWish& wish) {
  return fmt::format("nbd+unix:///{}?socket={}", wish.name, wish.socket);
}

void check_socket(const std::string& path) {
  if (answers(path)) {
    throw Failure(kBusy, fmt::format("another server has {}", path), "choose another socket");
  }
  struct stat about;
  if (::lstat(path.c_str(), &about) == 0) {
    throw Failure(kFailed, fmt::format("{} is there already, and no server answers", path),
                  "remove it, or choose another socket");
  }
  if (!fs::is_directory(folder_of(path))) throw failure_of(-ENOENT, folder_of(path));
}

NbdServer::NbdServer(const ExportWish& wish) : socket_(wish.socket) {
  std::vector<std::string> command = {"qemu-nbd", "-r",    "-t", "-e",     kClients,
                                      "-k",       socket_, "-x", wish.name};
  // The driver by its name: what qemu would make of the device by asking it is not our choice.
  if (wish.image) {
    command.insert(command.end(), {"-B", wish.bitmap, "--image-opts",
                                   fmt::format("driver=qcow2,file.driver=file,file.filename={},"
                                               "data-file.driver=host_device,data-file.filename={}",
                                               wish.image->path(), wish.device)});
  } else {
    command.insert(
        command.end(),
        {"--image-opts", "driver=raw,file.driver=host_device,file.filename=" + wish.device});
  }
  child_ = start(command);
  if (child_ < 0) throw failure_of(-errno, "starting qemu-nbd");
  for (int i = 0; i < kReadySteps && !SignalsNoted::any(); ++i) {
    if (serves(socket_, wish.name)) return;
    int status = 0;
    if (::waitpid(child_, &status, WNOHANG) == child_) {
      child_ = -1;
      end();
      throw Failure(kFailed, "qemu-nbd ended at once; what it said stands above",
                    WIFEXITED(status) && WEXITSTATUS(status) == 127
                        ? "install the package qemu-utils"
                        : "look at `dmesg` if it could not read the snap");
    }
    std::this_thread::sleep_for(kStep);
  }
  if (SignalsNoted::any()) return;
  end();
  throw Failure(kFailed, "qemu-nbd does not answer on " + socket_, "try again");
}

NbdServer::~NbdServer() { end(); }

void NbdServer::end() {
  if (child_ > 0) ::kill(child_, SIGTERM);
  for (int i = 0; child_ > 0 && i < kEndSteps; ++i) {
    if (::waitpid(child_, nullptr, WNOHANG) == child_) child_ = -1;
    if (child_ > 0) std::this_thread::sleep_for(kStep);
  }
  if (child_ > 0) {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  ::unlink(socket_.c_str());
}

bool NbdServer::wait_for_signal() {
  // What is noted between the look and the wait would be slept through: the wait is short.
  while (!SignalsNoted::any()) {
    if (::waitpid(child_, nullptr, WNOHANG) == child_) {
      child_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return true;
}

}  // namespace snbf
