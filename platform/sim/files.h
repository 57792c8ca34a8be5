// File systems inside. Data blocks really lie on the device; names, sizes and block numbers are
// kept here, with the journal's rule: a change is durable once the commit that holds it is, and a
// power cut keeps a prefix of those that were not.
#pragma once

#include <set>

#include "block_dev.h"
#include "kernel.h"
#include "platform/file.h"

namespace snbf::sim {

constexpr u64 kBlockBytes = 4096;
constexpr u64 kJournalBlocks = 16;  // blocks 1 to 16; block 0 is the superblock
constexpr u32 kTypeDir = 0x4000, kTypeFile = 0x8000, kTypeLink = 0xA000, kTypeMask = 0xF000;

struct InodeMeta {
  u32 mode = 0;
  u64 size = 0;
  plat_devt device = 0;
  std::string target = {};         // of a symbolic link
  std::map<u64, u64> blocks = {};  // page of the file to block of the device
};

struct Meta {
  std::map<u64, InodeMeta> inodes;
  std::map<std::string, u64> names;  // "" is the root, then "a", "a/b"
  u64 next_inode = 2;
};

struct MetaOp {
  enum Kind { Create, Unlink, Forget, SetSize, MapPage, Truncate } kind;
  std::string path = {};
  u64 inode = 0;
  u64 a = 0, b = 0;
  InodeMeta fresh = {};
};
void apply(Meta& meta, const MetaOp& op);

struct FilePage {
  std::unique_ptr<Page> data;
  bool dirty = false;
};

struct Inode {
  FsState* fs;
  u64 number;
  Mutex lock;
  std::map<u64, FilePage> pages;
  int opens = 0;
  int writing_back = 0;
  int direct = 0;         // direct writes in flight
  u64 direct_writes = 0;  // begun so far
  int error = 0;          // of a write-back, told to the next sync

  bool busy() const { return writing_back > 0 || direct > 0; }
};

struct FsState {
  std::string name;
  plat_devt device = 0;  // 0: none below it
  plat_devt number = 0;  // the device's, or one of its own
  u64 first_data = 1 + kJournalBlocks;
  u64 blocks = 0;
  u64 free_limit = ~0ull;    // set by a test
  bool takes_direct = true;  // set by a test
  Meta meta;
  Meta committed;
  std::deque<MetaOp> journal;  // not committed
  std::size_t committing = 0;  // how many of them the commit in flight holds
  std::vector<bool> used;
  std::vector<u64> freed;  // reusable after the next commit
  u64 used_count = 0;
  u64 cursor = 0;
  std::map<u64, std::unique_ptr<Inode>> inodes;

  std::string mount_path;
  bool mounted = false;
  plat_bdev* bdev = nullptr;
  bool stopping = false;
  Task* journal_task = nullptr;
  Task* flusher_task = nullptr;
  WaitList journal_work = {}, journal_done = {}, writeback_done = {}, flusher_work = {},
           flusher_done = {};
  u64 commit_wanted = 0, commit_done = 0;
  u64 flush_wanted = 0, flush_done = 0;
  u64 journal_block = 0;
  int commit_error = 0;
  bool timer_armed = false;
  int frozen = 0;
  bool by_hand = false;
  u64 lost_pages = 0;
  bool aborted = false;
  bool refuses_open = false;  // for writing, as what is remounted read-only
  std::size_t in_doubt = 0;   // entries of the commit whose record is on its way, or was then
  u64 refusals = 0;
  Task* frozen_by = nullptr;
  int writers = 0;
  WaitList thaw_waiters = {}, writer_waiters = {};

  Inode* inode(u64 number);
};

struct FilesState {
  std::vector<std::unique_ptr<FsState>> all;
  std::vector<FsState*> mounts;  // the root file system first
  std::set<plat_file*> open_files;
  std::set<plat_path*> paths;
  std::set<plat_parent*> parents;
};

// Where a path leads.
struct Place {
  FsState* fs = nullptr;
  std::string rel;  // inside of it
  std::string absolute;
  u64 inode = 0;  // 0: no such name
  bool last_normal = true;
  bool trailing_slash = false;
  std::string last;
};

// ---- fs.cpp: one file system

// May sleep. 0, bytes or a negative error.
s64 fs_write(Kernel& k, Inode& inode, u64 position, const u8* from, u64 bytes, bool sync);
// A direct write on its way: whole pages. Begun one after another, within journal_start of the
// file's system; waited for together.
struct DirectWrite {
  s64 result = 0;
  int outstanding = 0;
};
void fs_begin_direct(Kernel& k, Inode& inode, u64 position, void* const* pages, u64 bytes,
                     DirectWrite& write);
void fs_end_direct(Kernel& k, Inode& inode, u64 position, u64 bytes, DirectWrite& write);
s64 fs_read(Kernel& k, Inode& inode, u64 position, u8* to, u64 bytes);
int fs_truncate(Kernel& k, Inode& inode);
int fs_create(Kernel& k, FsState& fs, const std::string& rel, InodeMeta fresh, u64* number);
int fs_unlink(Kernel& k, FsState& fs, const std::string& rel);
void fs_put_inode(Kernel& k, Inode& inode);
int fs_sync_inode(Kernel& k, Inode& inode);
// Answers `error`, and some of what was not on disk never will be.
int fs_fail_sync(Kernel& k, Inode& inode, int error);
int fs_sync(Kernel& k, FsState& fs);
bool fs_dirty(const FsState& fs);
u64 fs_free_blocks(const FsState& fs);
// What is on disk and no more, as a mount finds it.
void fs_recover(FsState& fs);
// ---- journal.cpp
void journal_start(Kernel& k, FsState& fs);
void journal_stop(Kernel& k, FsState& fs);
// 0, or the error with which a change to an aborted file system must fail. Within journal_start.
int journal_refuses(Kernel& k, FsState& fs);
void journal_log(Kernel& k, FsState& fs, MetaOp op);
int journal_commit(Kernel& k, FsState& fs);
void start_fs_tasks(Kernel& k, FsState& fs);
void stop_fs_tasks(Kernel& k, FsState& fs);
int write_back(Kernel& k, Inode& inode);
void balance_dirty(Kernel& k, FsState& fs);
int freeze(Kernel& k, FsState& fs, bool by_hand);
int thaw(Kernel& k, FsState& fs, bool by_hand);
// ---- vfs.cpp
// Of a path without links.
std::string parent_of(const std::string& absolute);
int resolve(Kernel& k, const std::string& path, bool follow, Place* place);
int open_inode(Kernel& k, const std::string& path, int flags, int mode, Inode** inode);
void make_root(Kernel& k);
void mount_fs(Kernel& k, FsState& fs, const std::string& path);

}  // namespace snbf::sim
