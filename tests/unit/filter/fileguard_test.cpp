#include "filter/fileguard.h"

#include <gtest/gtest.h>

namespace snbf {
namespace {

using FileState = FileGuard::FileState;

FileGuard saved() {
  FileGuard guard;
  guard.end_save(guard.begin_save(), FileState::Whole);
  return guard;
}

TEST(FileGuard, ARecordThatKnowsOfNoFileLetsEverybodyGo) {
  FileGuard guard;
  guard.count_mark();
  EXPECT_TRUE(guard.covers());
  EXPECT_TRUE(guard.is_guarded());
}

TEST(FileGuard, ABitThatTheFileLacksKeepsWritesUntilTheFlagIsUp) {
  FileGuard guard = saved();
  EXPECT_TRUE(guard.covers());
  EXPECT_FALSE(guard.is_guarded());
  guard.count_mark();
  EXPECT_FALSE(guard.covers());
  guard.flag_is_on_disk();
  EXPECT_TRUE(guard.covers());
  guard.count_mark();
  EXPECT_TRUE(guard.covers());
}

TEST(FileGuard, AFlagBehindASnapshotGuardsNothing) {
  FileGuard guard = saved();
  guard.flag_is_on_disk();
  const u64 snapshot = guard.begin_save();
  EXPECT_TRUE(guard.covers());
  guard.count_mark();
  guard.flag_is_on_disk();
  EXPECT_FALSE(guard.covers());
  EXPECT_FALSE(guard.is_guarded());
  guard.end_save(snapshot, FileState::Whole);
  EXPECT_FALSE(guard.covers());
}

// Each saver takes its snapshot before it waits for its turn.
TEST(FileGuard, TheOlderOfTwoSnapshotsMayBeWrittenLast) {
  FileGuard guard = saved();
  const u64 older = guard.begin_save();
  guard.count_mark();
  const u64 newer = guard.begin_save();
  guard.end_save(newer, FileState::Whole);
  EXPECT_FALSE(guard.covers());
  EXPECT_FALSE(guard.is_behind());
  guard.end_save(older, FileState::Whole);
  EXPECT_FALSE(guard.covers());
  EXPECT_TRUE(guard.is_behind());
}

TEST(FileGuard, TheNewerSnapshotWrittenLastCoversIt) {
  FileGuard guard = saved();
  const u64 older = guard.begin_save();
  guard.count_mark();
  const u64 newer = guard.begin_save();
  guard.end_save(older, FileState::Whole);
  EXPECT_FALSE(guard.covers());
  guard.end_save(newer, FileState::Whole);
  EXPECT_TRUE(guard.covers());
}

TEST(FileGuard, AFailedSaveLeavesEitherFile) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.end_save(guard.begin_save(), FileState::Unknown);  // the one before may be there still
  EXPECT_FALSE(guard.covers());
  guard.flag_is_on_disk();
  guard.end_save(guard.begin_save(), FileState::Unknown);  // it may have been written to its end
  EXPECT_TRUE(guard.covers());
  guard.count_mark();
  EXPECT_FALSE(guard.covers());
  guard.flag_is_on_disk();
  guard.end_save(guard.begin_save(),
                 FileState::NoWhole);  // the file was not touched: its flag is up
  guard.count_mark();
  EXPECT_TRUE(guard.covers());
}

TEST(FileGuard, WhatALoadFindsDecides) {
  FileGuard guard;
  guard.file_is_unknown();
  EXPECT_FALSE(guard.covers());
  guard.file_was_loaded(FileState::Unknown);
  EXPECT_FALSE(guard.covers());
  FileGuard absent;
  absent.file_is_unknown();
  absent.file_was_loaded(FileState::NoWhole);
  EXPECT_TRUE(absent.is_guarded());
  absent.file_was_loaded(FileState::Whole);
  EXPECT_TRUE(absent.covers());
  absent.count_mark();
  EXPECT_FALSE(absent.covers());
  // A whole one was there: what is seen now may not have reached the disk.
  absent.file_was_loaded(FileState::NoWhole);
  EXPECT_FALSE(absent.covers());
}

TEST(FileGuard, OnceGivenUpNobodyWaitsUntilTheStoreIsBack) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.give_up_for_now();
  EXPECT_TRUE(guard.covers());
  guard.end_save(guard.begin_save(), FileState::Unknown);
  guard.count_mark();
  EXPECT_TRUE(guard.covers());
  const u64 snapshot = guard.begin_save();
  guard.count_mark();
  guard.end_save(snapshot, FileState::Whole);
  EXPECT_FALSE(guard.covers());
}

// The writes that were let go, before and behind the snapshot, have left no request.
TEST(FileGuard, ASaveThatEndsAGiveUpAsksForTheFlagOfWhatItLacks) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.give_up_for_good();
  u64 snapshot = guard.begin_save();
  guard.count_mark();
  EXPECT_TRUE(guard.end_save(snapshot, FileState::Whole));
  guard.flag_is_on_disk();
  guard.request_is_gone();
  guard.give_up_for_now();
  snapshot = guard.begin_save();
  EXPECT_FALSE(guard.end_save(snapshot, FileState::Whole)) << "it lacks nothing";
}

TEST(FileGuard, OnlyWhatWasGivenUpForNowIsTriedAgain) {
  FileGuard guard = saved();
  EXPECT_FALSE(guard.tries_again());
  guard.count_mark();
  guard.give_up_for_now();
  EXPECT_TRUE(guard.tries_again());
  guard.flag_is_on_disk();
  EXPECT_FALSE(guard.tries_again());
  guard.give_up_for_good();
  EXPECT_FALSE(guard.tries_again());
}

// Its store may only be away, and the place where it was mounted lie on the node.
TEST(FileGuard, WhatWasGivenUpForNowStaysSo) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.give_up_for_now();
  guard.give_up_for_good();
  EXPECT_TRUE(guard.tries_again());
}

TEST(FileGuard, AFlagThatComesBackAmidASaveIsAskedForAtItsEnd) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.give_up_for_now();
  const u64 snapshot = guard.begin_save();
  guard.count_mark();  // a write that waits for nothing
  guard.flag_is_on_disk();
  EXPECT_TRUE(guard.end_save(snapshot, FileState::Whole));
}

TEST(FileGuard, OneRequestIsQueuedAtATimeAndTheEndOfASaveAsksAgain) {
  FileGuard guard = saved();
  const u64 snapshot = guard.begin_save();
  guard.count_mark();
  guard.want_flag();
  EXPECT_TRUE(guard.ask_for_flag());
  EXPECT_FALSE(guard.ask_for_flag());
  guard.request_is_gone();
  EXPECT_TRUE(guard.end_save(snapshot, FileState::Whole));
  EXPECT_FALSE(guard.ask_for_flag());
  // Nobody waits for what this one has.
  EXPECT_FALSE(guard.end_save(guard.begin_save(), FileState::Whole));
}

// A save whose snapshot is older may yet overwrite what has made the file good meanwhile.
TEST(FileGuard, AnOlderSaveBringsBackAFileThatLacksWrites) {
  for (const bool by_flag : {true, false}) {
    FileGuard guard = saved();
    guard.count_mark();
    const u64 older = guard.begin_save();
    guard.give_up_for_now();
    guard.count_mark();
    if (by_flag) guard.flag_is_on_disk();
    for (int saves = by_flag ? 0 : 2; saves > 0; --saves)
      guard.end_save(guard.begin_save(), FileState::Whole);
    EXPECT_FALSE(guard.lacks_writes()) << by_flag;
    guard.end_save(older, FileState::Whole);
    EXPECT_TRUE(guard.lacks_writes()) << by_flag;
    EXPECT_TRUE(guard.tries_again()) << by_flag;
    guard.flag_is_on_disk();
    EXPECT_FALSE(guard.tries_again()) << by_flag;
  }
}

TEST(FileGuard, ALoadAmidASaveEndsAGiveUpForNow) {
  FileGuard guard = saved();
  const u64 older = guard.begin_save();
  guard.count_mark();
  guard.give_up_for_now();
  guard.file_was_loaded(FileState::Whole);
  EXPECT_FALSE(guard.lacks_writes());
  guard.end_save(older, FileState::Whole);
  EXPECT_TRUE(guard.lacks_writes());
}

// What is read behind it may be in this kernel's memory alone.
TEST(FileGuard, WhatALoadFindsBehindASaveThatFailedIsNotOnDiskForCertain) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.end_save(guard.begin_save(), FileState::Unknown);
  guard.file_was_loaded(FileState::Whole);
  EXPECT_FALSE(guard.covers());
  FileGuard flagged = guard;
  flagged.flag_is_on_disk();
  guard.end_save(guard.begin_save(), FileState::Whole);
  for (FileGuard* each : {&guard, &flagged}) {
    each->file_was_loaded(FileState::Whole);
    EXPECT_TRUE(each->covers());
  }
}

// What went on unguarded behind its snapshot is not in the file that the save has left.
TEST(FileGuard, ASaveThatEndsAGiveUpMayLackWrites) {
  FileGuard guard = saved();
  guard.count_mark();
  guard.give_up_for_now();
  EXPECT_TRUE(guard.lacks_writes());
  const u64 snapshot = guard.begin_save();
  guard.count_mark();
  EXPECT_TRUE(guard.covers());
  guard.end_save(snapshot, FileState::Whole);
  EXPECT_TRUE(guard.lacks_writes());
  EXPECT_TRUE(guard.tries_again()) << "no write may ever come";
  FileGuard flagged = guard;
  flagged.flag_is_on_disk();
  guard.end_save(guard.begin_save(), FileState::Whole);
  for (FileGuard* each : {&guard, &flagged}) {
    EXPECT_FALSE(each->lacks_writes());
    each->file_was_loaded(FileState::Unknown);
    EXPECT_FALSE(each->lacks_writes()) << "what there is now may be had";
  }
}

}  // namespace
}  // namespace snbf
