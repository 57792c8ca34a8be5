// SPDX-License-Identifier: GPL-2.0-only
// An image as a block device of the kernel: qemu-nbd on a /dev/nbd device. It outlives us.
#pragma once

#include <cstdint>
#include <string>

namespace snbf {

// The file that qemu-nbd serves as that device, /dev/nbdN; empty if it serves none there. `root`: of
// the file systems of the kernel, for tests.
std::string served_by(const std::string& device, const std::string& root = "");
// The /dev/nbdN as which qemu-nbd serves that very file; empty: none.
std::string server_of(const std::string& image, const std::string& root = "");

// The device, once the kernel knows its size; one that serves the image already is taken as it is.
// Throws Failure: what was begun here is ended then.
std::string serve(const std::string& image, const std::string& socket, uint64_t size_bytes);
// Throws Failure.
void end_server(const std::string& device);

}  // namespace snbf
