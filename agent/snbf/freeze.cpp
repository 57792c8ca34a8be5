// SPDX-License-Identifier: GPL-2.0-only
#include "freeze.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "failure.h"

namespace snbf {

namespace {

enum KeeperExit : int { kThawedWhenTold = 0, kTimeWasUp = 1 };

// The keeper must outlive any signal that ends its parent, and do nothing but wait and thaw.
[[noreturn]] void keep(int told, int mount_fd, int limit_ms) {
  ::setsid();
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) ::signal(signal, SIG_IGN);
  pollfd wait{told, POLLIN, 0};
  int rc;
  do rc = ::poll(&wait, 1, limit_ms);
  while (rc < 0 && errno == EINTR);
  ::ioctl(mount_fd, FITHAW, 0);
  ::_exit(rc == 0 ? kTimeWasUp : kThawedWhenTold);
}

}  // namespace

Freeze::Freeze(const std::string& mount_point, std::chrono::milliseconds limit) {
  UniqueFd mount(::open(mount_point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!mount) throw failure_of(-errno, "freezing " + mount_point);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw failure_of(-errno, "freezing " + mount_point);
  UniqueFd told(ends[0]);
  tell_ = UniqueFd(ends[1]);
  // The keeper is there before the freeze: there is no moment at which nobody would thaw.
  keeper_ = ::fork();
  if (keeper_ < 0) throw failure_of(-errno, "freezing " + mount_point);
  if (keeper_ == 0) {
    ::close(tell_.get());
    keep(told.get(), mount.get(), static_cast<int>(limit.count()));
  }
  if (::ioctl(mount.get(), FIFREEZE, 0) < 0) {
    const int error = errno;
    // Frozen by somebody else: then it is theirs to thaw, and the keeper must not.
    ::kill(keeper_, SIGKILL);
    ::waitpid(keeper_, nullptr, 0);
    keeper_ = -1;
    throw failure_of(-error, "freezing " + mount_point);
  }
  began_ = ended_ = std::chrono::steady_clock::now();
}

Freeze::~Freeze() { thaw(); }

bool Freeze::thaw() {
  if (keeper_ < 0) return held_;
  tell_.reset();
  int status = 0;
  while (::waitpid(keeper_, &status, 0) < 0 && errno == EINTR) {
  }
  keeper_ = -1;
  ended_ = std::chrono::steady_clock::now();
  held_ = WIFEXITED(status) && WEXITSTATUS(status) == kThawedWhenTold;
  return held_;
}

uint64_t Freeze::lasted_ms() const {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(ended_ - began_).count());
}

}  // namespace snbf
