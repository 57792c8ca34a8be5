// One file system: pages, blocks, names.
#include <algorithm>
#include <cstring>

#include "files.h"

namespace snbf::sim {

void apply(Meta& meta, const MetaOp& op) {
  switch (op.kind) {
    case MetaOp::Create:
      meta.names[op.path] = op.inode;
      meta.inodes[op.inode] = op.fresh;
      meta.next_inode = std::max(meta.next_inode, op.inode + 1);
      break;
    case MetaOp::Unlink:
      meta.names.erase(op.path);
      break;
    case MetaOp::Forget:
      meta.inodes.erase(op.inode);
      break;
    case MetaOp::SetSize:
      meta.inodes[op.inode].size = op.a;
      break;
    case MetaOp::MapPage:
      meta.inodes[op.inode].blocks[op.a] = op.b;
      break;
    case MetaOp::Truncate:
      meta.inodes[op.inode].size = 0;
      meta.inodes[op.inode].blocks.clear();
      break;
  }
}

Inode* FsState::inode(u64 number) {
  auto& slot = inodes[number];
  if (slot == nullptr) {
    slot = std::make_unique<Inode>();
    slot->fs = this;
    slot->number = number;
    slot->lock.name = "the lock of inode " + std::to_string(number) + " of " + name;
  }
  return slot.get();
}

void fs_recover(FsState& fs) {
  fs.aborted = false;
  fs.in_doubt = 0;
  fs.meta = fs.committed;
  fs.journal.clear();
  fs.freed.clear();
  fs.used.assign(fs.blocks, false);
  fs.used_count = 0;
  std::set<u64> named;
  for (const auto& [path, number] : fs.meta.names) named.insert(number);
  std::erase_if(fs.meta.inodes, [&](const auto& inode) { return !named.contains(inode.first); });
  fs.committed = fs.meta;
  for (const auto& [number, inode] : fs.meta.inodes) {
    for (const auto& [page, block] : inode.blocks) {
      if (fs.used[block]) continue;
      fs.used[block] = true;
      ++fs.used_count;
    }
  }
}

u64 fs_free_blocks(const FsState& fs) {
  const u64 free_blocks = fs.blocks - fs.first_data - fs.used_count;
  return std::min(free_blocks, fs.free_limit);
}

namespace {

// 0 when the disk is full.
u64 allocate_block(FsState& fs) {
  if (fs_free_blocks(fs) == 0) return 0;
  for (u64 tried = 0; tried < fs.blocks; ++tried) {
    fs.cursor = fs.cursor + 1 < fs.blocks ? fs.cursor + 1 : fs.first_data;
    if (fs.cursor < fs.first_data || fs.used[fs.cursor]) continue;
    fs.used[fs.cursor] = true;
    ++fs.used_count;
    if (fs.free_limit != ~0ull) --fs.free_limit;
    return fs.cursor;
  }
  return 0;
}

void free_blocks(FsState& fs, const InodeMeta& meta) {
  for (const auto& [page, block] : meta.blocks) fs.freed.push_back(block);
}

int read_block(Kernel& k, FsState& fs, u64 block, Page& page) {
  Request request{.op = Op::Read, .sector = block * 8, .bytes = 4096};
  Bytes data;
  const int error = k.submit_and_wait(fs.device, request, &data);
  if (error == 0) memcpy(page.data(), data.data(), 4096);
  return error;
}

// The page in memory, read from the device if it must be. Null and the error on failure.
FilePage* get_page(Kernel& k, Inode& inode, u64 index, bool whole, int* error) {
  *error = 0;
  auto at = inode.pages.find(index);
  if (at != inode.pages.end()) return &at->second;
  auto page = std::make_unique<Page>(Page{});
  const InodeMeta& meta = inode.fs->meta.inodes[inode.number];
  auto mapped = meta.blocks.find(index);
  if (!whole && mapped != meta.blocks.end() && inode.fs->device != 0) {
    const u64 block = mapped->second;
    const u64 direct_writes = inode.direct_writes;
    *error = read_block(k, *inode.fs, block, *page);
    if (*error != 0) return nullptr;
    // What may have been read too early must not stay.
    if (inode.direct_writes != direct_writes) return get_page(k, inode, index, whole, error);
    // Cut off or deleted meanwhile: what was read is not the file's any more.
    auto file = inode.fs->meta.inodes.find(inode.number);
    if (file == inode.fs->meta.inodes.end()) return *error = -EIO, nullptr;
    auto now = file->second.blocks.find(index);
    if (now == file->second.blocks.end() || now->second != block) *page = Page{};
  }
  FilePage& slot = inode.pages[index];
  if (slot.data == nullptr) slot.data = std::move(page);  // else somebody else was faster
  return &slot;
}

int map_page(Kernel& k, Inode& inode, u64 index) {
  FsState& fs = *inode.fs;
  InodeMeta& meta = fs.meta.inodes[inode.number];
  if (fs.device == 0 || meta.blocks.count(index) != 0) return 0;
  const u64 block = allocate_block(fs);
  if (block == 0) return -ENOSPC;
  journal_log(k, fs, {.kind = MetaOp::MapPage, .inode = inode.number, .a = index, .b = block});
  return 0;
}

s64 write_pages(Kernel& k, Inode& inode, u64 position, const u8* from, u64 bytes) {
  u64 done = 0;
  while (done < bytes) {
    const u64 at = position + done;
    const u64 piece = std::min<u64>(bytes - done, kBlockBytes - at % kBlockBytes);
    // The page first: a block that is not the file's yet must not be read, it holds somebody's past.
    int error = 0;
    FilePage* page = get_page(k, inode, at / kBlockBytes, piece == kBlockBytes, &error);
    if (error == 0) error = map_page(k, inode, at / kBlockBytes);
    if (error != 0) return done > 0 ? static_cast<s64>(done) : error;
    memcpy(page->data->data() + at % kBlockBytes, from + done, piece);
    page->dirty = true;
    done += piece;
    const InodeMeta& meta = inode.fs->meta.inodes[inode.number];
    if (position + done > meta.size) {
      journal_log(k, *inode.fs,
                  {.kind = MetaOp::SetSize, .inode = inode.number, .a = position + done});
    }
    k.point();
  }
  return static_cast<s64>(done);
}

}  // namespace

s64 fs_write(Kernel& k, Inode& inode, u64 position, const u8* from, u64 bytes, bool sync) {
  FsState& fs = *inode.fs;
  k.lock(inode.lock);
  journal_start(k, fs);
  const int refused = journal_refuses(k, fs);
  const s64 done = refused != 0 ? refused : write_pages(k, inode, position, from, bytes);
  journal_stop(k, fs);
  k.unlock(inode.lock);
  if (done > 0 && sync) {
    if (const int error = fs_sync_inode(k, inode); error != 0) return error;
  }
  if (done > 0) balance_dirty(k, fs);
  return done;
}

// A crash may find the blocks mapped and not written: then they hold what they held before, as
// nothing promises.
void fs_begin_direct(Kernel& k, Inode& inode, u64 position, void* const* pages, u64 bytes,
                     DirectWrite& write) {
  constexpr u64 kBlocksAtOnce = 16;
  FsState& fs = *inode.fs;
  const u64 first = position / kBlockBytes, count = bytes / kBlockBytes;
  k.lock(inode.lock);
  journal_start(k, fs);
  if (const int refused = journal_refuses(k, fs); refused != 0) {
    write.result = refused;
    journal_stop(k, fs);
    k.unlock(inode.lock);
    return;
  }
  // What is in memory goes first, and is forgotten.
  write_back(k, inode);
  while (inode.writing_back > 0) {
    k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
  }
  inode.pages.erase(inode.pages.lower_bound(first), inode.pages.lower_bound(first + count));
  ++inode.direct_writes;
  u64 mapped = 0;
  int error = 0;
  while (mapped < count && (error = map_page(k, inode, first + mapped)) == 0) ++mapped;
  if (u64& size = fs.meta.inodes[inode.number].size; position + mapped * kBlockBytes > size) {
    journal_log(
        k, fs,
        {.kind = MetaOp::SetSize, .inode = inode.number, .a = position + mapped * kBlockBytes});
  }
  write.result = error != 0 ? error : static_cast<s64>(bytes);
  const auto block_of = [&](u64 page) { return fs.meta.inodes[inode.number].blocks[first + page]; };
  for (u64 page = 0; page < mapped;) {
    Request request{.op = Op::Write, .sector = block_of(page) * 8};
    u64 run = 0;
    do {
      const u8* from = static_cast<const u8*>(pages[page + run]);
      request.data.insert(request.data.end(), from, from + kBlockBytes);
      ++run;
    } while (run < kBlocksAtOnce && page + run < mapped &&
             block_of(page + run) == block_of(page) + run);
    page += run;
    plat_bio* bio = k.make_caller_bio(request, fs.device);
    ++inode.direct;
    ++write.outstanding;
    bio->on_end = [&k, &inode, &write](plat_bio*, int rc) {
      if (rc != 0) write.result = -EIO;
      --write.outstanding;
      --inode.direct;
      k.wake_all(inode.fs->writeback_done);
    };
    k.submit(bio, k.find_dev(fs.device));
  }
  journal_stop(k, fs);
  k.unlock(inode.lock);
}

void fs_end_direct(Kernel& k, Inode& inode, u64 position, u64 bytes, DirectWrite& write) {
  FsState& fs = *inode.fs;
  while (write.outstanding > 0) {
    k.sleep_in(fs.writeback_done, "a direct write to a file of", &fs, fs.name.c_str());
  }
  // Pages that were read meanwhile may be older.
  const u64 first = position / kBlockBytes;
  inode.pages.erase(inode.pages.lower_bound(first),
                    inode.pages.lower_bound(first + bytes / kBlockBytes));
  ++inode.direct_writes;
}

s64 fs_read(Kernel& k, Inode& inode, u64 position, u8* to, u64 bytes) {
  u64 done = 0;
  while (done < bytes) {
    const u64 at = position + done;
    const u64 size = inode.fs->meta.inodes[inode.number].size;
    if (at >= size) break;
    const u64 piece = std::min({bytes - done, kBlockBytes - at % kBlockBytes, size - at});
    int error = 0;
    FilePage* page = get_page(k, inode, at / kBlockBytes, false, &error);
    if (page == nullptr) return done > 0 ? static_cast<s64>(done) : error;
    memcpy(to + done, page->data->data() + at % kBlockBytes, piece);
    done += piece;
    k.point();
  }
  return static_cast<s64>(done);
}

int fs_truncate(Kernel& k, Inode& inode) {
  FsState& fs = *inode.fs;
  k.lock(inode.lock);
  journal_start(k, fs);
  while (inode.busy()) {
    k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
  }
  const int refused = journal_refuses(k, fs);
  if (refused == 0) {
    free_blocks(fs, fs.meta.inodes[inode.number]);
    inode.pages.clear();
    journal_log(k, fs, {.kind = MetaOp::Truncate, .inode = inode.number});
  }
  journal_stop(k, fs);
  k.unlock(inode.lock);
  return refused;
}

int fs_create(Kernel& k, FsState& fs, const std::string& rel, InodeMeta fresh, u64* number) {
  journal_start(k, fs);
  int error = journal_refuses(k, fs);
  if (error != 0) {
    // Nothing is made.
  } else if (fs.meta.names.count(rel) != 0) {
    error = -EEXIST;
  } else if (fs.device != 0 && fs_free_blocks(fs) == 0) {
    error = -ENOSPC;
  } else {
    *number = fs.meta.next_inode++;
    journal_log(k, fs,
                {.kind = MetaOp::Create, .path = rel, .inode = *number, .fresh = std::move(fresh)});
  }
  journal_stop(k, fs);
  return error;
}

namespace {

void forget(Kernel& k, FsState& fs, u64 number) {
  free_blocks(fs, fs.meta.inodes[number]);
  journal_log(k, fs, {.kind = MetaOp::Forget, .inode = number});
}

}  // namespace

namespace {

void wait_written(Kernel& k, FsState& fs, const std::string& rel) {
  for (;;) {
    auto at = fs.meta.names.find(rel);
    if (at == fs.meta.names.end() || !fs.inode(at->second)->busy()) return;
    k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
  }
}

}  // namespace

int fs_unlink(Kernel& k, FsState& fs, const std::string& rel) {
  journal_start(k, fs);
  wait_written(k, fs, rel);
  auto at = fs.meta.names.find(rel);
  int error = journal_refuses(k, fs);
  if (error != 0) {
    // It stays.
  } else if (at == fs.meta.names.end()) {
    error = -ENOENT;
  } else if ((fs.meta.inodes[at->second].mode & kTypeMask) == kTypeDir) {
    error = -EISDIR;
  } else {
    const u64 number = at->second;
    Inode* inode = fs.inode(number);
    journal_log(k, fs, {.kind = MetaOp::Unlink, .path = rel, .inode = number});
    if (inode->opens == 0 && !inode->busy() && inode->lock.owner == nullptr) {
      forget(k, fs, number);
      inode->pages.clear();
    }
  }
  journal_stop(k, fs);
  return error;
}

void fs_put_inode(Kernel& k, Inode& inode) {
  if (--inode.opens > 0) return;
  FsState& fs = *inode.fs;
  for (const auto& [path, number] : fs.meta.names) {
    if (number == inode.number) return;
  }
  if (fs.meta.inodes.count(inode.number) == 0) return;
  // The last close of a file that has no name any more.
  journal_start(k, fs);
  while (inode.busy()) {
    k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
  }
  inode.pages.clear();
  if (!fs.aborted) forget(k, fs, inode.number);
  journal_stop(k, fs);
}

bool fs_dirty(const FsState& fs) {
  if (!fs.journal.empty()) return true;
  for (const auto& [number, inode] : fs.inodes) {
    for (const auto& [index, page] : inode->pages) {
      if (page.dirty && fs.device != 0) return true;
    }
  }
  return false;
}

int fs_sync_inode(Kernel& k, Inode& inode) {
  FsState& fs = *inode.fs;
  if (fs.device == 0) return 0;
  int error = write_back(k, inode);
  while (inode.writing_back > 0) {
    k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
  }
  if (fs.aborted) error = journal_refuses(k, fs);
  if (inode.error != 0) error = std::exchange(inode.error, 0);
  if (error != 0) return error;
  if (!fs.journal.empty()) return journal_commit(k, fs);
  return k.submit_and_wait(fs.device, {.op = Op::Flush}, nullptr);
}

int fs_fail_sync(Kernel& k, Inode& inode, int error) {
  for (auto at = inode.pages.begin(); at != inode.pages.end();) {
    const bool lost = at->second.dirty && k.io_rng.one_in(2);
    if (lost) {
      at->second.dirty = false;
      ++inode.fs->lost_pages;
    }
    // Memory may be short, or not: then what is read is yet what was written.
    at = lost && k.io_rng.one_in(2) ? inode.pages.erase(at) : std::next(at);
  }
  // Names and sizes may wait for the next commit, whoever asks for it.
  if (k.io_rng.one_in(2)) fs_sync_inode(k, inode);
  return error;
}

int fs_sync(Kernel& k, FsState& fs) {
  if (fs.device == 0) return 0;
  int error = 0;
  std::vector<u64> numbers;
  for (const auto& [number, inode] : fs.inodes) numbers.push_back(number);
  for (const u64 number : numbers) {
    if (const int one = write_back(k, *fs.inode(number)); one != 0) error = one;
  }
  for (const u64 number : numbers) {
    while (fs.inode(number)->writing_back > 0) {
      k.sleep_in(fs.writeback_done, "the write-back of a file of", &fs, fs.name.c_str());
    }
  }
  if (fs.aborted) return journal_refuses(k, fs);
  if (!fs.journal.empty()) {
    if (const int one = journal_commit(k, fs); one != 0) error = one;
    return error;
  }
  const int flushed = k.submit_and_wait(fs.device, {.op = Op::Flush}, nullptr);
  return error != 0 ? error : flushed;
}

}  // namespace snbf::sim
