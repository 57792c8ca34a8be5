// SPDX-License-Identifier: GPL-2.0-only
// Whether a bitmap in memory holds more than its file may show after a power cut.
//
// What counts is the file, not the dirty field. A whole file promises that every change since the snapshot
// it was made from is in it, so no write may reach the partition whose extent a whole file lacks. Bits come
// into memory one after another, and are numbered; with that the rule is one comparison:
//
//   marks_    how many bits have come into memory: set by writes, or put there by a command or a load
//   file_     a whole file, if one is on disk, has all bits up to this number; kNoFile: none is whole, for
//             the flag is on disk, or there never was one
//   pending_  the same of every file that a save under way (from its snapshot to its end) may leave
//
// While marks_ is beyond either, every write waits, whatever its bits: one that is set may have been set a
// moment ago, by a write that waits itself.
//
//   event                    what it does
//   bit comes in             marks_ + 1
//   snapshot of a save       pending_ = marks_ (the first one of several); a flag raised from here on
//                            guards nothing, for the save is still to overwrite it
//   end of a save            file_ = its snapshot; if it failed within the file, whichever is less
//   flag on disk             file_ = kNoFile
//   file found while loading file_ = marks_ if it is taken over, kNoFile if it can never be taken for a
//                            whole one, else 0; what is found where a whole one was before, or behind a save
//                            that failed within it, may be no more than this kernel's idea of it: 0
//   flag not raised in time  writes go on, unguarded, until a save or a flag reaches the disk again: whoever has
//                            given it up tries again, unless the file can never have one where it lies
//
// The owner's bmp_spin is held for every call.
#pragma once

#include "base/types.h"

namespace snbf {

class FileGuard {
 public:
  enum class FileState { Whole, NoWhole, Unknown };

  bool covers() const { return marks_ <= safe_; }
  // No whole file is on disk, and none is being written.
  bool is_guarded() const { return !may_be_whole() && saves_ == 0; }
  // On disk there may be a file that a load would believe.
  bool may_be_whole() const { return file_ != kNoFile; }
  // The file, as it is on disk, lacks something, and nobody is about to write it.
  bool is_behind() const { return saves_ == 0 && marks_ > file_; }
  // Writes have gone on that a whole file lacks: no load may believe it.
  bool lacks_writes() const { return (given_up_ && marks_ > file_) || unguarded_ > file_; }

  void count_mark() { ++marks_; }

  // Answers the number of the snapshot.
  u64 begin_save();
  // `state`: Whole: written; Unknown: it failed within the file; NoWhole: it did not touch it.
  // True: the caller queues a request for the flag, which a write has asked for.
  bool end_save(u64 snapshot, FileState state);
  // Behind a save that failed, or that has put an older file back: what a command has put into memory is in no file,
  // and no write may ever come to ask for the flag. True as of end_save.
  bool ask_instead_of_save() { return is_behind() && !given_up_ && ask_for_flag(); }
  void flag_is_on_disk();
  // Before any load.
  void file_is_unknown();
  void file_was_loaded(FileState state);
  void give_up_for_now() { give_up(true); }
  void give_up_for_good() { give_up(false); }
  // Also behind a save that has ended the give-up, for what its file lacks.
  bool tries_again() const { return tries_again_ && (given_up_ || unguarded_ > file_); }

  // A write waits for the flag.
  void want_flag() { wanted_ = true; }
  // A request for the flag: true if the caller is to queue one, false while one is queued.
  bool ask_for_flag();
  // It was served, cancelled, or could not be queued.
  void request_is_gone() { requested_ = false; }

 private:
  static constexpr u64 kNoFile = ~u64{0};

  u64 honest_limit() const;
  void give_up(bool tries_again);
  void note_unguarded();
  void settle() { safe_ = given_up_ ? kNoFile : honest_limit(); }

  // A record that knows of no file.
  u64 marks_ = 0;
  u64 safe_ = kNoFile;  // the least of the others
  u64 file_ = kNoFile;
  u64 pending_ = 0;
  // Up to this one writes may have gone on unguarded that a file lacks which is whole, or becomes so by a save under
  // way.
  u64 unguarded_ = 0;
  u32 saves_ = 0;
  bool was_loaded_ = false;
  bool given_up_ = false;
  bool tries_again_ = false;
  bool wanted_ = false;
  bool requested_ = false;
  // A save failed within the file: what can be read of it may not be what is on disk.
  bool is_uncertain_ = false;
};

}  // namespace snbf
