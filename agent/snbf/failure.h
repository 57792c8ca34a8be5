// SPDX-License-Identifier: GPL-2.0-only
// How a verb gives up: one sentence, one remedy, one exit status.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace snbf {

// The meaning of each is part of the tool's contract.
enum Exit : int {
  kDone = 0,
  kFailed = 1,
  kMisused = 2,
  kWarned = 3,
  kSnapLost = 4,
  kNoDriver = 5,
  kUnsafe = 6,
  kDiffers = 7,
  kBusy = 8,
};

struct ExitMeaning {
  Exit status;
  const char* meaning;
};
std::span<const ExitMeaning> exit_meanings();
// All of them in one sentence.
std::string exit_statuses();

class Failure : public std::runtime_error {
 public:
  Failure(Exit status, const std::string& what, std::string remedy = "", int error = 0)
      : std::runtime_error(what), status_(status), remedy_(std::move(remedy)), error_(error) {}
  Exit status() const { return status_; }
  const std::string& remedy() const { return remedy_; }
  int error() const { return error_; }  // the negated error number behind it, or 0

 private:
  Exit status_;
  std::string remedy_;
  int error_;
};

// The driver's or the system's refusal, as a sentence about `doing` with its remedy.
Failure failure_of(int rc, const std::string& doing);

// Throws failure_of() unless `rc` is 0.
void must(int rc, const std::string& doing);

}  // namespace snbf
