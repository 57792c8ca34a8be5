// SPDX-License-Identifier: GPL-2.0-only
// A snap over NBD, by qemu-nbd: its bytes, and if asked for a bitmap of its node beside them.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <optional>
#include <string>

#include "extents.h"

namespace snbf {

// A qcow2 image without data of its own, which carries the bitmap; a device takes its data file's
// place. Its files go with it.
class BitmapImage {
 public:
  // `name`: of the bitmap. Throws Failure.
  BitmapImage(const Extents& changed, const std::string& name);
  ~BitmapImage();
  BitmapImage(const BitmapImage&) = delete;
  BitmapImage& operator=(const BitmapImage&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string folder_;
  std::string path_;
};

struct ExportWish {
  std::string device;
  std::string name;                    // of the export
  std::string socket;                  // absolute
  const BitmapImage* image = nullptr;  // in place of the device
  std::string bitmap;
};

// qemu-nbd over it, read-only, for as long as it lives; it ends with us.
class NbdServer {
 public:
  // The socket takes connections when this returns. Throws Failure.
  explicit NbdServer(const ExportWish& wish);
  ~NbdServer();
  NbdServer(const NbdServer&) = delete;
  NbdServer& operator=(const NbdServer&) = delete;

  // Until it ends by itself, or a signal asks us to: true for that.
  bool wait_for_signal();

 private:
  void end();

  pid_t child_ = -1;
  std::string socket_;
};

// Where clients connect to: "nbd+unix:///monday?socket=/run/s".
std::string export_uri(const ExportWish& wish);

// Throws Failure if something is there already: kBusy while a server answers.
void check_socket(const std::string& path);

}  // namespace snbf
