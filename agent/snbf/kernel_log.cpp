// SPDX-License-Identifier: GPL-2.0-only
#include "kernel_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace snbf {

namespace {

constexpr size_t kRecordBytes = 8192;  // the kernel's longest, and more
constexpr const char* kErrorPrefix = "ERROR: ";

bool starts_with(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

KernelLog::KernelLog() : fd_(::open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  if (fd_) ::lseek(fd_.get(), 0, SEEK_END);
}

std::vector<std::string> KernelLog::lines() {
  std::vector<std::string> found;
  std::string record(kRecordBytes, '\0');
  while (fd_) {
    const ssize_t n = ::read(fd_.get(), record.data(), record.size());
    // Overtaken: the next read goes on with the oldest record that is left.
    if (n < 0 && (errno == EPIPE || errno == EINTR)) continue;
    if (n <= 0) break;
    const std::string line = driver_line(record.substr(0, static_cast<size_t>(n)));
    if (!line.empty()) found.push_back(line);
  }
  return found;
}

std::string driver_line(const std::string& record) {
  const size_t semicolon = record.find(';');
  if (semicolon == std::string::npos) return "";
  std::string line = record.substr(semicolon + 1);
  line = line.substr(0, line.find('\n'));
  while (starts_with(line, " ")) line.erase(0, 1);
  if (starts_with(line, kErrorPrefix)) line.erase(0, std::char_traits<char>::length(kErrorPrefix));
  // "routine(): message", and one message that names no routine.
  const size_t colon = line.find("(): ");
  const bool names_routine = colon != std::string::npos && line.find(' ') > colon &&
                             (starts_with(line, "snbf_") || line.find("_reader_") < colon);
  return names_routine || starts_with(line, "Oops. Bit ") ? line : "";
}

}  // namespace snbf
