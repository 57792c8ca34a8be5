// What makes a file system bite: changes wait for a journal fiber that sends requests of its own
// and stops at a freeze; a flusher writes dirty pages; a writer may have to wait for other people's
// dirty pages.
#include <algorithm>
#include <cstring>

#include "files.h"

namespace snbf::sim {

namespace {

constexpr u64 kCommitEveryUs = 5'000'000;
constexpr u64 kWriteBackBlocks = 16;

Bytes journal_bytes(const FsState& fs, u64 sequence) {
  Bytes block(kBlockBytes);
  const std::string text = "journal of " + fs.name + " " + std::to_string(sequence);
  memcpy(block.data(), text.data(), std::min<std::size_t>(text.size(), block.size()));
  return block;
}

u64 next_journal_sector(FsState& fs) {
  fs.journal_block = fs.journal_block % kJournalBlocks + 1;
  return fs.journal_block * 8;
}

// One commit: the entries, then a record behind a flush, durable at once.
int commit(Kernel& k, FsState& fs) {
  if (fs.aborted) return -EIO;
  fs.committing = fs.journal.size();
  std::vector<u64> freed;
  freed.swap(fs.freed);
  int error = 0;
  const u64 entries = 1 + fs.committing / 64;
  for (u64 i = 0; i < std::min<u64>(entries, 8) && error == 0 && !fs.aborted; ++i) {
    Request request{.op = Op::Write, .sector = next_journal_sector(fs)};
    request.data = journal_bytes(fs, fs.commit_done + 1);
    error = k.submit_and_wait(fs.device, request, nullptr);
  }
  if (error == 0 && !fs.aborted) {
    Request record{.op = Op::Write, .sector = next_journal_sector(fs)};
    record.data = journal_bytes(fs, fs.commit_done + 1);
    record.preflush = record.fua = true;
    fs.in_doubt = fs.committing;
    error = k.submit_and_wait(fs.device, record, nullptr);
  }
  if (fs.aborted) {
    error = -EIO;
  } else {
    fs.in_doubt = 0;
  }
  for (; fs.committing > 0; --fs.committing) {
    if (error == 0) apply(fs.committed, fs.journal.front());
    if (error == 0) fs.journal.pop_front();
  }
  for (const u64 block : freed) {
    if (error != 0) {
      fs.freed.push_back(block);
      continue;
    }
    fs.used[block] = false;
    --fs.used_count;
  }
  return error;
}

void journal_body(Kernel& k, FsState& fs) {
  for (;;) {
    while (fs.commit_done == fs.commit_wanted && !fs.stopping) {
      k.sleep_in(fs.journal_work, "work (journal of)", &fs, fs.name.c_str());
    }
    if (fs.stopping && fs.commit_done == fs.commit_wanted) return;
    const u64 sequence = fs.commit_wanted;
    fs.commit_error = commit(k, fs);
    fs.commit_done = sequence;
    k.wake_all(fs.journal_done);
  }
}

void flusher_body(Kernel& k, FsState& fs) {
  for (;;) {
    while (fs.flush_done == fs.flush_wanted && !fs.stopping) {
      k.sleep_in(fs.flusher_work, "work (flusher of)", &fs, fs.name.c_str());
    }
    if (fs.stopping) return;
    const u64 sequence = fs.flush_wanted;
    // A frozen file system has nothing to flush, and must not be written to.
    if (fs.frozen == 0) {
      std::vector<u64> numbers;
      for (const auto& [number, inode] : fs.inodes) numbers.push_back(number);
      for (const u64 number : numbers) write_back(k, *fs.inode(number));
      while (std::any_of(numbers.begin(), numbers.end(),
                         [&](u64 number) { return fs.inode(number)->writing_back > 0; })) {
        k.sleep_in(fs.writeback_done, "the write-back of", &fs, fs.name.c_str());
      }
    }
    fs.flush_done = sequence;
    k.wake_all(fs.flusher_done);
  }
}

void ask_commit(Kernel& k, FsState& fs) {
  // A commit on its way does not hold what was logged since.
  ++fs.commit_wanted;
  k.wake_all(fs.journal_work);
}

void arm_timer(Kernel& k, FsState& fs) {
  if (fs.timer_armed || fs.device == 0) return;
  fs.timer_armed = true;
  k.add_event(
      kCommitEveryUs,
      [&k, &fs] {
        fs.timer_armed = false;
        if (!fs.mounted || fs.frozen > 0) return;
        ++fs.flush_wanted;
        k.wake_all(fs.flusher_work);
        if (!fs.journal.empty()) ask_commit(k, fs);
      },
      true);
}

}  // namespace

void start_fs_tasks(Kernel& k, FsState& fs) {
  fs.stopping = false;
  fs.journal_task = k.new_task(
      "jbd/" + fs.name, [&k, &fs] { journal_body(k, fs); }, 0);
  fs.flusher_task = k.new_task(
      "flush/" + fs.name, [&k, &fs] { flusher_body(k, fs); }, 0);
  fs.journal_task->serves_writes = fs.flusher_task->serves_writes = true;
  k.task_get(fs.journal_task);
  k.task_get(fs.flusher_task);
}

void stop_fs_tasks(Kernel& k, FsState& fs) {
  fs.stopping = true;
  k.wake_all(fs.journal_work);
  k.wake_all(fs.flusher_work);
  for (Task* task : {fs.journal_task, fs.flusher_task}) {
    while (task->state != Task::State::Dead) k.sleep("a task's end", task, task->name, nullptr, 50);
    k.task_put(task);
  }
}

void journal_start(Kernel& k, FsState& fs) {
  if (fs.device == 0) return;
  if (!fs.mounted)
    k.fatal("a change to the file system '%s', which is not mounted", fs.name.c_str());
  // Changes nest (a file written from a page of another): only the outermost meets the freeze.
  while (fs.frozen > 0 && k.current->fs_depth == 0) {
    k.sleep_in(fs.thaw_waiters, "the thaw of", &fs, fs.name.c_str(), fs.frozen_by);
  }
  ++fs.writers;
  if (k.current->fs_depth++ > 0) return;
  // The journal is full now and then: room comes with the commit.
  if (!k.io_rng.one_in(8) || fs.journal.empty()) return;
  const u64 wanted = fs.commit_wanted + 1;
  ask_commit(k, fs);
  while (fs.commit_done < wanted) {
    k.sleep_in(fs.journal_done, "a commit of the journal of", &fs, fs.name.c_str(),
               fs.journal_task);
  }
}

void journal_stop(Kernel& k, FsState& fs) {
  if (fs.device == 0) return;
  --k.current->fs_depth;
  if (--fs.writers == 0) k.wake_all(fs.writer_waiters);
  k.point();
}

int journal_refuses(Kernel& k, FsState& fs) {
  if (!fs.aborted) return 0;
  ++fs.refusals;
  return k.io_rng.one_in(2) ? -EROFS : -EIO;
}

void journal_log(Kernel& k, FsState& fs, MetaOp op) {
  apply(fs.meta, op);
  if (fs.device == 0) return;
  fs.journal.push_back(std::move(op));
  arm_timer(k, fs);
}

int journal_commit(Kernel& k, FsState& fs) {
  ask_commit(k, fs);
  const u64 wanted = fs.commit_wanted;
  while (fs.commit_done < wanted) {
    k.sleep_in(fs.journal_done, "a commit of the journal of", &fs, fs.name.c_str(),
               fs.journal_task);
  }
  return fs.commit_error;
}

int write_back(Kernel& k, Inode& inode) {
  FsState& fs = *inode.fs;
  if (fs.device == 0) return 0;
  if (fs.aborted) {  // nobody will write it any more
    for (auto& [index, page] : inode.pages) {
      page.dirty = false;
    }
    return -EIO;
  }
  ++inode.writing_back;  // keeps the inode while this looks at it
  Sim::Plug plug(k.sim);
  const InodeMeta& meta = fs.meta.inodes[inode.number];
  auto at = inode.pages.begin();
  while (at != inode.pages.end()) {
    auto mapped = meta.blocks.find(at->first);
    if (!at->second.dirty || mapped == meta.blocks.end()) {
      ++at;
      continue;
    }
    // Neighbours on the device go in one request. The bytes are copied: the file may change
    // meanwhile.
    Request request{.op = Op::Write, .sector = mapped->second * 8};
    const u64 first_page = at->first;
    for (u64 count = 0; at != inode.pages.end() && count < kWriteBackBlocks; ++count) {
      auto block = meta.blocks.find(at->first);
      if (!at->second.dirty || block == meta.blocks.end() || at->first != first_page + count ||
          block->second != mapped->second + count) {
        break;
      }
      request.data.insert(request.data.end(), at->second.data->begin(), at->second.data->end());
      at->second.dirty = false;
      ++at;
    }
    const u64 next_page = at == inode.pages.end() ? ~0ull : at->first;
    plat_bio* bio = k.make_caller_bio(request, fs.device);
    ++inode.writing_back;
    bio->on_end = [&k, &inode](plat_bio*, int error) {
      if (error != 0) inode.error = -EIO;
      if (--inode.writing_back == 0) k.wake_all(inode.fs->writeback_done);
    };
    k.submit(bio, k.find_dev(fs.device));
    at = inode.pages.lower_bound(next_page);
    if (next_page == ~0ull) break;
  }
  if (--inode.writing_back == 0) k.wake_all(fs.writeback_done);
  return 0;
}

// A writer that dirties pages waits for the flusher now and then, and not only for that of its own
// file system: unless it is one that other writes wait for.
void balance_dirty(Kernel& k, FsState& fs) {
  for (FsState* other : k.files->mounts) {
    if (other->device == 0 || (other != &fs && k.current->serves_writes)) continue;
    if (!fs_dirty(*other) || other->frozen > 0 || !k.io_rng.one_in(16)) continue;
    const u64 wanted = ++other->flush_wanted;
    k.wake_all(other->flusher_work);
    while (other->flush_done < wanted && other->mounted) {
      k.sleep_in(other->flusher_done, "dirty pages of", other, other->name.c_str(),
                 other->flusher_task);
    }
    return;
  }
}

int freeze(Kernel& k, FsState& fs, bool by_hand) {
  if (by_hand && fs.frozen > 0) return -EBUSY;
  if (fs.by_hand) return -EBUSY;
  if (++fs.frozen > 1) return 0;
  fs.by_hand = by_hand;
  fs.frozen_by = k.current;
  while (fs.writers > 0) k.sleep_in(fs.writer_waiters, "the writers of", &fs, fs.name.c_str());
  return fs.aborted ? 0 : fs_sync(k, fs);  // there is nothing that it would write
}

int thaw(Kernel& k, FsState& fs, bool by_hand) {
  if (fs.frozen == 0 || fs.by_hand != by_hand) return -EINVAL;
  if (!by_hand && fs.frozen_by != k.current)
    k.fatal("a thaw by another task than the one that froze");
  if (--fs.frozen > 0) return 0;
  fs.by_hand = false;
  fs.frozen_by = nullptr;
  k.wake_all(fs.thaw_waiters);
  return 0;
}

int Kernel::freeze_fs(BlockDev* dev) {
  return dev->fs == nullptr ? 0 : freeze(*this, *dev->fs, false);
}

int Kernel::thaw_fs(BlockDev* dev) { return dev->fs == nullptr ? 0 : thaw(*this, *dev->fs, false); }

}  // namespace snbf::sim
