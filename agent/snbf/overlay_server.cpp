// SPDX-License-Identifier: GPL-2.0-only
#include "overlay_server.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <string_view>
#include <thread>
#include <vector>

#include "failure.h"
#include "files.h"

namespace snbf {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDevices = "/dev/nbd";
constexpr auto kStep = std::chrono::milliseconds(50);
constexpr int kSteps = 600;

std::string folder_of_device(const std::string& device, const std::string& root = "") {
  return fmt::format("{}/sys/block/{}", root, device.substr(sizeof "/dev/" - 1));
}

bool exists(const std::string& device, const std::string& root = "") {
  return fs::exists(folder_of_device(device, root));
}

std::string nbd(int number) { return fmt::format("{}{}", kDevices, number); }

uint64_t sectors_of(const std::string& device) {
  std::string text;
  read_file(folder_of_device(device) + "/size", &text);
  return text.empty() ? 0 : std::stoull(text);
}

bool is_free(const std::string& device) {
  return !fs::exists(folder_of_device(device) + "/pid") && sectors_of(device) == 0;
}

std::vector<std::string> split_at_zeros(const std::string& text) {
  std::vector<std::string> words;
  for (size_t at = 0; at < text.size();) {
    words.emplace_back(text.c_str() + at);
    at += words.back().size() + 1;
  }
  return words;
}

void connect(const std::string& image, const std::string& device, const std::string& socket) {
  run_or_throw({"qemu-nbd", "--connect=" + device, "--format=qcow2", "--cache=writeback",
                "--socket=" + socket, "--discard=ignore", image});
}

// It answers before the kernel knows the size.
void wait_for_size(const std::string& device, uint64_t sectors) {
  for (int i = 0; i < kSteps && sectors_of(device) < sectors; ++i) {
    std::this_thread::sleep_for(kStep);
  }
  if (sectors_of(device) >= sectors) return;
  throw Failure(kFailed, "qemu-nbd serves no disk on " + device, "look at `dmesg`");
}

}  // namespace

std::string served_by(const std::string& device, const std::string& root) {
  std::string pid;
  if (!read_file(folder_of_device(device, root) + "/pid", &pid)) return "";
  pid.erase(pid.find_last_not_of(" \n") + 1);
  std::string line;
  read_file(fmt::format("{}/proc/{}/cmdline", root, pid), &line);
  const auto words = split_at_zeros(line);
  // As connect() starts it; anybody else's words may stand otherwise, and mean something else.
  const bool ours = words.size() > 2 && fs::path(words[0]).filename() == "qemu-nbd" &&
                    words[1] == "--connect=" + device;
  return ours ? words.back() : "";
}

std::string server_of(const std::string& image, const std::string& root) {
  for (int number = 0; exists(nbd(number), root); ++number) {
    if (served_by(nbd(number), root) == image) return nbd(number);
  }
  return "";
}

std::string serve(const std::string& image, const std::string& socket, uint64_t size_bytes) {
  const uint64_t sectors = size_bytes / 512;
  if (!exists(nbd(0))) run_or_throw({"modprobe", "nbd"}, "kmod", "look at `dmesg`");
  if (const std::string there = server_of(image); !there.empty()) {
    wait_for_size(there, sectors);
    return there;
  }
  for (int number = 0; exists(nbd(number)); ++number) {
    const std::string device = nbd(number);
    if (!is_free(device)) continue;
    connect(image, device, socket);
    try {
      wait_for_size(device, sectors);
    } catch (...) {
      run({"qemu-nbd", "--disconnect", device});
      throw;
    }
    return device;
  }
  throw Failure(kBusy, "every /dev/nbd device is in use",
                "end one: `qemu-nbd --disconnect /dev/nbdN`");
}

void end_server(const std::string& device) { run_or_throw({"qemu-nbd", "--disconnect", device}); }

}  // namespace snbf
