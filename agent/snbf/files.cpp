// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "failure.h"

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

void replace_file(const std::string& path, const std::string& contents) {
  const std::string aside = path + ".new";
  {
    UniqueFd file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
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

UniqueFd lock_file(const std::string& path, const std::string& doing) {
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) throw failure_of(-errno, "locking " + path);
  if (::flock(file.get(), LOCK_EX | LOCK_NB) < 0) {
    throw Failure(kBusy, fmt::format("{}: another snbf is at work here", doing),
                  "wait until it is done");
  }
  return file;
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
    XXH3_128bits_update(state.get(), buffer.data(), static_cast<size_t>(n));
  }
  const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
  return fmt::format("{:016x}{:016x}", hash.high64, hash.low64);
}

Ran run(const std::vector<std::string>& arguments) {
  int out[2];
  int err[2];
  if (::pipe2(out, O_CLOEXEC) < 0 || ::pipe2(err, O_CLOEXEC) < 0) throw failure_of(-errno, "pipe");
  const pid_t child = ::fork();
  if (child < 0) throw failure_of(-errno, "starting " + arguments[0]);
  if (child == 0) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(err[1]);
  UniqueFd from_out(out[0]);
  UniqueFd from_err(err[0]);
  Ran ran;
  pollfd waits[] = {{from_out.get(), POLLIN, 0}, {from_err.get(), POLLIN, 0}};
  std::string* texts[] = {&ran.output, &ran.errors};
  for (int left = 2; left > 0;) {
    if (::poll(waits, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (waits[i].fd < 0 || waits[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(waits[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        texts[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        waits[i].fd = -1;
        --left;
      }
    }
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return ran;
}

std::string run_or_throw(const std::vector<std::string>& arguments) {
  Ran ran = run(arguments);
  if (ran.status == 127) {
    throw Failure(kFailed, fmt::format("{} could not be started", arguments[0]),
                  "install the package qemu-utils");
  }
  if (ran.status != 0) {
    throw Failure(kFailed, fmt::format("{} {}: {}", arguments[0],
                                       arguments.size() > 1 ? arguments[1] : "", ran.errors));
  }
  return ran.output;
}

}  // namespace snbf
