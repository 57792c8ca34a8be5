// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "attended.h"
#include "failure.h"
#include "signals.h"

namespace snbf {

namespace {

constexpr size_t kReadBytes = 1 << 20;

void read_into(int fd, std::string* out) {
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) out->append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

UniqueFd::~UniqueFd() { reset(); }

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int UniqueFd::release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

std::string folder_of(const std::string& path) {
  const auto parent = std::filesystem::path(path).parent_path();
  return parent.empty() ? "." : parent.string();
}

void replace_file(const std::string& path, const std::string& contents, unsigned mode) {
  const std::string aside = path + ".new";
  {
    UniqueFd file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!file) throw failure_of(-errno, "writing " + aside);
    for (size_t done = 0; done < contents.size();) {
      const ssize_t n = ::write(file.get(), contents.data() + done, contents.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw failure_of(-errno, "writing " + aside);
      done += static_cast<size_t>(n);
    }
    if (::fsync(file.get()) < 0) throw failure_of(-errno, "writing " + aside);
  }
  if (::rename(aside.c_str(), path.c_str()) < 0) throw failure_of(-errno, "replacing " + path);
  sync_directory(folder_of(path));
}

bool read_file(const std::string& path, std::string* contents) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw failure_of(-errno, "reading " + path);
  }
  contents->clear();
  read_into(file.get(), contents);
  return true;
}

void sync_file(const std::string& path) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || ::fsync(file.get()) < 0) throw failure_of(-errno, "syncing " + path);
}

void sync_directory(const std::string& path) {
  UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::fsync(directory.get()) < 0) throw failure_of(-errno, "syncing " + path);
}

void remove_file(const std::string& path) {
  if (::unlink(path.c_str()) < 0 && errno != ENOENT) throw failure_of(-errno, "removing " + path);
}

void make_private_folder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) < 0 && errno != EEXIST)
    throw failure_of(-errno, "making " + path);
}

UniqueFd lock_file(const std::string& path, const std::string& doing) {
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) throw failure_of(-errno, "locking " + path);
  if (::flock(file.get(), LOCK_EX | LOCK_NB) < 0) {
    throw Failure(kBusy, fmt::format("{}: another snbf is at work here", doing),
                  "wait until it is done");
  }
  return file;
}

bool is_locked(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  return file && ::flock(file.get(), LOCK_SH | LOCK_NB) < 0 && errno == EWOULDBLOCK;
}

std::string hash_file(const std::string& path) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw failure_of(-errno, "reading " + path);
  std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> state(XXH3_createState(),
                                                                 XXH3_freeState);
  XXH3_128bits_reset(state.get());
  std::string buffer(kReadBytes, '\0');
  ssize_t n;
  while ((n = ::read(file.get(), buffer.data(), buffer.size())) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw failure_of(-errno, "reading " + path);
    if (SignalsNoted::any()) throw Failure(kFailed, "interrupted while reading " + path);
    XXH3_128bits_update(state.get(), buffer.data(), static_cast<size_t>(n));
  }
  const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
  return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

Ran run(const std::vector<std::string>& arguments) { return run_attended(arguments, {}); }

void require_success(const std::vector<std::string>& arguments, const Ran& ran, const char* package,
                     const char* remedy) {
  if (ran.status == 127) {
    throw Failure(kFailed, fmt::format("{} could not be started", arguments[0]),
                  fmt::format("install the package {}", package));
  }
  if (ran.status == 0) return;
  std::string why = ran.errors;
  why.erase(why.find_last_not_of(" \n") + 1);
  throw Failure(
      kFailed,
      fmt::format("{} {}: {}", arguments[0], arguments.size() > 1 ? arguments[1] : "", why),
      remedy);
}

std::string run_or_throw(const std::vector<std::string>& arguments, const char* package,
                         const char* remedy) {
  Ran ran = run(arguments);
  require_success(arguments, ran, package, remedy);
  return ran.output;
}

}  // namespace snbf
