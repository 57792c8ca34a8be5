// SPDX-License-Identifier: GPL-2.0-only
#include "hooks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "failure.h"

namespace snbf {

namespace {

// What the keeper tells by its exit status beside the hook's own.
constexpr int kTimeUpStatus = 124;
constexpr int kNoProcessStatus = 125;
constexpr int kKilledStatus = 128;

int keeper_status(const ShellEnd& end) {
  switch (end.how) {
    case ShellEnd::How::Exited:
      return end.code;
    case ShellEnd::How::Killed:
      return kKilledStatus + end.code;
    case ShellEnd::How::TimeUp:
    case ShellEnd::How::Stopped:
      break;
  }
  return kTimeUpStatus;
}

ShellEnd told_by_keeper(int status) {
  const ShellEnd end = shell_end_of(status);
  const bool time_up = end.how == ShellEnd::How::Exited && end.code == kTimeUpStatus;
  return time_up ? ShellEnd{ShellEnd::How::TimeUp, 0} : end;
}

// What the parent says; nothing if it is gone.
std::string listen(int told) {
  std::string said;
  char buffer[64];
  ssize_t n;
  while ((n = ::read(told, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) said.append(buffer, static_cast<size_t>(n));
  }
  return said;
}

bool tell(int pipe, const std::string& what) {
  ssize_t n;
  do n = ::write(pipe, what.data(), what.size());
  while (n < 0 && errno == EINTR);
  return n > 0;
}

}  // namespace

Hooks::Hooks(const HookCommands& commands, Environment environment)
    : commands_(commands), environment_(std::move(environment)) {}

Hooks::~Hooks() { after_thaw("failed"); }

ShellEnd Hooks::run_after_thaw(const std::string& outcome) {
  environment_["SNBF_HOOK"] = "after-thaw";
  environment_["SNBF_OUTCOME"] = outcome;
  // A service manager that finds us killed tells all that is left of us to end, just as the hook
  // begins: the application would stay at rest.
  return run_shell(commands_.after_thaw, environment_, commands_.limit, nullptr,
                   EndSignals::Ignore);
}

void Hooks::keep(int told) {
  // Neither locks nor connections of ours may live on in it.
  const auto kept = static_cast<unsigned>(told);
  if (kept > 3) ::close_range(3, kept - 1, 0);
  ::close_range(kept + 1, ~0u, 0);
  ::setsid();
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) ::signal(signal, SIG_IGN);
  try {
    const std::string said = listen(told);
    ::_exit(keeper_status(run_after_thaw(said.empty() ? "killed" : said)));
  } catch (const std::exception&) {
    ::_exit(kNoProcessStatus);
  }
}

void Hooks::start_keeper() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw failure_of(-errno, "starting the hooks");
  const UniqueFd told(ends[0]);
  tell_ = UniqueFd(ends[1]);
  keeper_ = ::fork();
  if (keeper_ < 0) throw failure_of(-errno, "starting the hooks");
  if (keeper_ == 0) keep(told.get());
}

void Hooks::before_freeze(const StopAsked& stop) {
  // The keeper is there before the application is at rest: there is no moment at which nobody
  // would let it go on.
  if (!commands_.after_thaw.empty()) start_keeper();
  if (commands_.before_freeze.empty()) return;
  environment_["SNBF_HOOK"] = "before-freeze";
  const ShellEnd end = run_shell(commands_.before_freeze, environment_, commands_.limit, stop);
  if (end.good()) return;
  throw Failure(
      kFailed,
      fmt::format("the hook before the freeze {}: {}", end.text(), commands_.before_freeze),
      "nothing was backed up; make it end with status 0 in time, see --hook-limit");
}

std::string Hooks::after_thaw(const std::string& outcome) {
  if (keeper_ < 0) return "";
  const bool told = tell(tell_.get(), outcome);
  tell_.reset();
  int status = 0;
  while (::waitpid(keeper_, &status, 0) < 0 && errno == EINTR) {
  }
  keeper_ = -1;
  try {
    // A keeper that was killed while it waited has run nothing.
    const ShellEnd end = told ? told_by_keeper(status) : run_after_thaw(outcome);
    if (end.good()) return "";
    return fmt::format("the hook after the thaw {}: {}", end.text(), commands_.after_thaw);
  } catch (const Failure& failure) {
    return failure.what();
  }
}

}  // namespace snbf
