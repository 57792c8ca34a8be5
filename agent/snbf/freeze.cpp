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
#include "output.h"

namespace snbf {

namespace {

enum KeeperExit : int { kThawedWhenTold = 0, kTimeWasUp = 1, kNothingToThaw = 2, kThawFailed = 3 };

// What the parent says before it closes its end. That it says nothing means that it is gone.
constexpr char kFrozen = 'f';
constexpr char kNotFrozen = 'n';
constexpr int kThawTries = 500;

// Repeats what a signal or a file system that is just being frozen cut short.
bool thaw_file_system(int mount_fd) {
  for (int tries = 0; tries < kThawTries; ++tries) {
    if (::ioctl(mount_fd, FITHAW, 0) == 0) return true;
    if (errno == EINVAL) return false;  // it is not frozen
    ::usleep(10'000);
  }
  return false;
}

// 1 with a byte, 0 at the end of the pipe, -1 when the time was up.
int listen(int told, int limit_ms, char* said) {
  pollfd wait{told, POLLIN, 0};
  int rc;
  do rc = ::poll(&wait, 1, limit_ms);
  while (rc < 0 && errno == EINTR);
  if (rc == 0) return -1;
  ssize_t n;
  do n = ::read(told, said, 1);
  while (n < 0 && errno == EINTR);
  return n == 1 ? 1 : 0;
}

// The keeper must outlive any signal that ends its parent, and do nothing but wait and thaw. Its
// clock starts when the file system stands still: until then there would be nothing to thaw.
[[noreturn]] void keep(int told, int mount_fd, int limit_ms) {
  ::setsid();
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) ::signal(signal, SIG_IGN);
  char said = 0;
  const int heard = listen(told, -1, &said);
  if (heard == 1 && said == kNotFrozen) ::_exit(kNothingToThaw);
  if (heard == 0) ::_exit(thaw_file_system(mount_fd) ? kThawedWhenTold : kThawFailed);
  const bool time_was_up = listen(told, limit_ms, &said) < 0;
  if (!thaw_file_system(mount_fd)) ::_exit(kThawFailed);
  ::_exit(time_was_up ? kTimeWasUp : kThawedWhenTold);
}

void tell(int pipe, char what) {
  while (::write(pipe, &what, 1) < 0 && errno == EINTR) {
  }
}

}  // namespace

Freeze::Freeze(const std::string& mount_point, std::chrono::milliseconds limit)
    : mount_point_(mount_point),
      mount_(::open(mount_point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!mount_) throw failure_of(-errno, "freezing " + mount_point);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw failure_of(-errno, "freezing " + mount_point);
  UniqueFd told(ends[0]);
  tell_ = UniqueFd(ends[1]);
  // The keeper is there before the freeze: there is no moment at which nobody would thaw.
  keeper_ = ::fork();
  if (keeper_ < 0) throw failure_of(-errno, "freezing " + mount_point);
  if (keeper_ == 0) {
    ::close(tell_.get());
    keep(told.get(), mount_.get(), static_cast<int>(limit.count()));
  }
  if (::ioctl(mount_.get(), FIFREEZE, 0) < 0) {
    const int error = errno;
    // Frozen by somebody else: then it is theirs to thaw, and the keeper must not.
    tell(tell_.get(), kNotFrozen);
    tell_.reset();
    while (::waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR) {
    }
    keeper_ = -1;
    throw failure_of(-error, "freezing " + mount_point);
  }
  began_ = ended_ = std::chrono::steady_clock::now();
  tell(tell_.get(), kFrozen);
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
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : kThawFailed;
  held_ = code == kThawedWhenTold;
  if (held_ || code == kTimeWasUp) return held_;
  // The keeper was killed, or could not: until we thaw it the file system may stand still.
  held_ = thaw_file_system(mount_.get());
  if (!held_) warn("nobody could tell that " + mount_point_ + " is thawed: `fsfreeze -u` makes sure");
  return held_;
}

uint64_t Freeze::lasted_ms() const {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(ended_ - began_).count());
}

}  // namespace snbf
