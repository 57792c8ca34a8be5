// SPDX-License-Identifier: GPL-2.0-only
// Programs of the administrator's around the instant of a backup: one that brings an application to
// rest before it, and one that lets it go on behind it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "files.h"
#include "shell.h"

namespace snbf {

struct HookCommands {
  std::string before_freeze;  // for the shell; empty: none
  std::string after_thaw;
  std::chrono::milliseconds limit{30000};  // of each
};

// The hook after the thaw runs once the hook before the freeze has been begun, whatever happens:
// a process of its own runs it when it is told to, or when we are gone by whatever signal. It starts
// with SIGINT, SIGTERM and SIGHUP ignored; its limit ends it all the same.
class Hooks {
 public:
  Hooks(const HookCommands& commands, Environment environment);
  ~Hooks();
  Hooks(const Hooks&) = delete;
  Hooks& operator=(const Hooks&) = delete;

  // Throws Failure if the hook fails or takes too long; `stop` ends it early.
  void before_freeze(const StopAsked& stop);
  // `outcome`: "done" or "failed". Empty, or what went wrong. Further calls do nothing.
  std::string after_thaw(const std::string& outcome);

 private:
  void start_keeper();
  [[noreturn]] void keep(int told);
  ShellEnd run_after_thaw(const std::string& outcome);

  HookCommands commands_;
  Environment environment_;
  UniqueFd tell_;
  pid_t keeper_ = -1;
};

}  // namespace snbf
