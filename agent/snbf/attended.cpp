// SPDX-License-Identifier: GPL-2.0-only
#include "attended.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "failure.h"

namespace snbf {

namespace {

constexpr int kStopAskedEveryMs = 200;

}  // namespace

Ran run_attended(const std::vector<std::string>& arguments, const Attendance& attendance) {
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
  bool stopped = false;
  for (int left = 2; left > 0;) {
    if (!stopped && attendance.stop && attendance.stop()) {
      ::kill(child, SIGTERM);
      stopped = true;
    }
    const int ready = ::poll(waits, 2, attendance.stop ? kStopAskedEveryMs : -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (waits[i].fd < 0 || waits[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(waits[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        texts[i]->append(buffer, static_cast<size_t>(n));
        if (i == 0 && attendance.output) attendance.output({buffer, static_cast<size_t>(n)});
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

}  // namespace snbf
