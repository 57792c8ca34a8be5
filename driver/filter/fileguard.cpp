// SPDX-License-Identifier: GPL-2.0-only
#include "filter/fileguard.h"

namespace snbf {

u64 FileGuard::honest_limit() const { return saves_ != 0 && pending_ < file_ ? pending_ : file_; }

u64 FileGuard::begin_save() {
  // Several saves may be under way, and the one with the oldest snapshot may be the last to write.
  if (saves_++ == 0) pending_ = marks_;
  settle();
  return marks_;
}

bool FileGuard::end_save(u64 snapshot, FileState state) {
  --saves_;
  if (state == FileState::Whole) {
    file_ = snapshot;
    is_uncertain_ = false;
    // A save whose snapshot is older may still write its own file last.
    if (snapshot >= unguarded_ && saves_ == 0) unguarded_ = 0;
    // Nobody has waited for a flag meanwhile, though the file may lack something.
    if (given_up_) {
      wanted_ = true;
      unguarded_ = marks_;
    }
    given_up_ = false;
  } else if (state == FileState::Unknown) {
    is_uncertain_ = true;
    if (snapshot < file_) file_ = snapshot;
  }
  settle();
  if (marks_ <= honest_limit()) {
    wanted_ = false;
    return false;
  }
  return saves_ == 0 && wanted_ && ask_for_flag();
}

void FileGuard::flag_is_on_disk() {
  file_ = kNoFile;
  is_uncertain_ = false;
  note_unguarded();
  wanted_ = saves_ != 0 && (wanted_ || given_up_);
  given_up_ = false;
  settle();
}

void FileGuard::file_is_unknown() {
  ++marks_;
  file_ = 0;
  settle();
}

void FileGuard::file_was_loaded(FileState state) {
  const bool was_whole = was_loaded_ && file_ != kNoFile;
  was_loaded_ = true;
  ++marks_;
  file_ = 0;
  if (state == FileState::Whole && !is_uncertain_) {
    file_ = marks_;
    note_unguarded();
    given_up_ = false;
  } else if (state == FileState::NoWhole && !was_whole) {
    file_ = kNoFile;
  }
  settle();
}

void FileGuard::give_up(bool tries_again) {
  // What was given up for now may only seem misplaced, while its store is away.
  tries_again_ = tries_again || (given_up_ && tries_again_);
  given_up_ = true;
  settle();
}

// What is in the file now is good; but a save under way is still to overwrite it, with a snapshot of before what has
// gone on meanwhile.
void FileGuard::note_unguarded() {
  if (saves_ == 0) {
    unguarded_ = 0;
  } else if (given_up_) {
    unguarded_ = marks_;
  }
}

bool FileGuard::ask_for_flag() {
  if (requested_) return false;
  requested_ = true;
  return true;
}

}  // namespace snbf
