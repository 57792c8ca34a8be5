// SPDX-License-Identifier: GPL-2.0-only
#include "shell.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "failure.h"

namespace snbf {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLookAgain = std::chrono::milliseconds(20);
constexpr auto kGrace = std::chrono::seconds(2);
constexpr int kNotStarted = 127;

[[noreturn]] void become_shell(const std::string& command, const Environment& environment,
                               int input, EndSignals signals) {
  ::setpgid(0, 0);
  // A hook that ran on behind us would bring to rest what nobody lets go on again; a program that
  // reads an image would take its part for the whole.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int signal : {SIGQUIT, SIGPIPE}) ::signal(signal, SIG_DFL);
  const auto at_end = signals == EndSignals::Ignore ? SIG_IGN : SIG_DFL;
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::signal(signal, at_end);
  for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
  // In the background of a terminal nobody can answer a question.
  ::dup2(input >= 0 ? input : ::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
  ::dup2(2, 1);
  ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  ::_exit(kNotStarted);
}

}  // namespace

pid_t start_shell(const std::string& command, const Environment& environment, int input,
                  EndSignals signals) {
  const pid_t child = ::fork();
  if (child < 0) throw failure_of(-errno, "starting " + command);
  if (child == 0) become_shell(command, environment, input, signals);
  ::setpgid(child, child);  // whoever comes first
  return child;
}

bool wait_for_child(pid_t child, Clock::time_point until, const StopAsked& stop, int* status) {
  for (;;) {
    const pid_t ended = ::waitpid(child, status, WNOHANG);
    if (ended == child || (ended < 0 && errno != EINTR)) return true;
    if (Clock::now() >= until || (stop && stop())) return false;
    std::this_thread::sleep_for(kLookAgain);
  }
}

void end_group(pid_t child, int* status) {
  ::kill(-child, SIGTERM);
  const bool gone = wait_for_child(child, Clock::now() + kGrace, nullptr, status);
  ::kill(-child, SIGKILL);
  while (!gone && ::waitpid(child, status, 0) < 0 && errno == EINTR) {
  }
}

std::string ShellEnd::text() const {
  switch (how) {
    case How::Exited:
      return fmt::format("ended with status {}", code);
    case How::Killed:
      return fmt::format("was killed by signal {}", code);
    case How::TimeUp:
      return "took too long, and was killed";
    case How::Stopped:
      return "was interrupted";
  }
  return "";
}

ShellEnd shell_end_of(int status) {
  if (WIFEXITED(status)) return {ShellEnd::How::Exited, WEXITSTATUS(status)};
  return {ShellEnd::How::Killed, WTERMSIG(status)};
}

ShellEnd run_shell(const std::string& command, const Environment& environment,
                   std::chrono::milliseconds limit, const StopAsked& stop, EndSignals signals) {
  const auto until = Clock::now() + limit;
  const pid_t child = start_shell(command, environment, -1, signals);
  int status = 0;
  if (wait_for_child(child, until, stop, &status)) return shell_end_of(status);
  const bool stopped = stop && stop();
  end_group(child, &status);
  return {stopped ? ShellEnd::How::Stopped : ShellEnd::How::TimeUp, 0};
}

}  // namespace snbf
