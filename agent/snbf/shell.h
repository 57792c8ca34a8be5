// SPDX-License-Identifier: GPL-2.0-only
// Commands of the administrator's, run by the shell in process groups of their own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace snbf {

using Environment = std::map<std::string, std::string>;
using StopAsked = std::function<bool()>;  // may be empty: never

// What the shell, and whatever it starts, does at first at SIGINT, SIGTERM and SIGHUP.
enum class EndSignals { End, Ignore };

// Reads from `input`, or nothing if that is -1; what it prints goes to stderr. The shell is killed
// when we are gone. Throws Failure if there is no process to be had.
pid_t start_shell(const std::string& command, const Environment& environment, int input = -1,
                  EndSignals signals = EndSignals::End);

// True: it has ended, and is no child any more. False: it still runs at `until`, or `stop` says so.
bool wait_for_child(pid_t child, std::chrono::steady_clock::time_point until, const StopAsked& stop,
                    int* status);

// A child and all of its process group, told to end (SIGTERM), and killed two seconds later.
void end_group(pid_t child, int* status);

// How a command ended.
struct ShellEnd {
  enum class How { Exited, Killed, TimeUp, Stopped } how = How::Exited;
  int code = 0;  // exit status, or signal

  bool good() const { return how == How::Exited && code == 0; }
  std::string text() const;  // "ended with status 3"
};
ShellEnd shell_end_of(int status);

// Runs it to its end; at the limit, or when `stop` says so, its group is ended. What a command that
// has ended by itself leaves in the background is its own affair.
ShellEnd run_shell(const std::string& command, const Environment& environment,
                   std::chrono::milliseconds limit, const StopAsked& stop,
                   EndSignals signals = EndSignals::End);

}  // namespace snbf
