// SPDX-License-Identifier: GPL-2.0-only
#include "record_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "handle.h"

namespace snbf::lib {

namespace {

int write_all(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? -errno : -EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

int sync_directory(const std::string& path) {
  Fd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return !directory.ok() || ::fsync(directory.get()) < 0 ? -errno : 0;
}

int read_file(const std::string& path, std::string* out) {
  Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.ok()) return -errno;
  out->clear();
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(file.get(), buffer, sizeof buffer)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -errno;
    out->append(buffer, static_cast<size_t>(n));
  }
  return 0;
}

int replace_file(const std::string& path, const std::string& text) {
  const std::string aside = path + ".new";
  {
    Fd file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.ok()) return -errno;
    if (int rc = write_all(file.get(), text); rc != 0) return rc;
    if (::fsync(file.get()) < 0) return -errno;
  }
  if (::rename(aside.c_str(), path.c_str()) < 0) return -errno;
  return sync_directory(path.substr(0, path.rfind('/') + 1));
}

int write_record(const std::string& path, const char* heading, const Fields& fields) {
  std::string text = std::string(heading) + "\n";
  for (const auto& [key, value] : fields) {
    if (value.find('\n') != std::string::npos) return -EINVAL;
    text += std::string(key) + "=" + value + "\n";
  }
  return replace_file(path, text + "end\n");
}

int read_record(const std::string& path, const char* heading,
                const std::function<bool(const std::string&, const std::string&)>& take) {
  std::string text;
  if (int rc = read_file(path, &text); rc != 0) return rc;
  std::istringstream file(text);
  std::string line;
  if (!std::getline(file, line) || line != heading) return -EBADMSG;
  bool complete = false;
  while (std::getline(file, line)) {
    const size_t equals = line.find('=');
    if (line == "end") complete = true;
    if (equals == std::string::npos) continue;
    if (!take(line.substr(0, equals), line.substr(equals + 1))) return -EBADMSG;
  }
  return complete ? 0 : -EBADMSG;
}

}  // namespace snbf::lib
