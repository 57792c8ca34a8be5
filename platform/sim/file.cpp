// The contract's files and paths.
#include "platform/file.h"

#include "files.h"
#include "platform/memory.h"

struct plat_file {
  snbf::sim::Inode* inode;
  int flags;
  std::string path;
};

struct plat_direct_batch {
  int pieces_max, pages_max;
  bool busy;
};

struct plat_path {
  snbf::sim::Place place;
  snbf::sim::InodeMeta meta;
};

struct plat_parent {
  snbf::sim::Place child;
  snbf::sim::Inode* directory;
  bool looked_up = false;
};

namespace snbf::sim {

void Kernel::files_leftovers(std::string& text) const {
  for (const plat_file* file : files->open_files) text += "  the open file " + file->path + "\n";
  for (const plat_path* path : files->paths)
    text += "  a reference to the path " + path->place.absolute + "\n";
  for (const plat_parent* parent : files->parents) {
    text += "  the lock of the parent of " + parent->child.absolute + "\n";
  }
}

namespace {

plat_file* check_file(Kernel& k, plat_file* file, const char* call) {
  if (k.files->open_files.count(file) == 0) k.fatal("%s() of a file that is not open", call);
  return file;
}

void check_pieces(Kernel& k, const plat_direct_batch& batch, const plat_file_piece* pieces,
                  int count) {
  u64 pages = 0;
  for (int i = 0; i < count; ++i) {
    const plat_file_piece& piece = pieces[i];
    if (piece.bytes == 0 || piece.bytes % kBlockBytes != 0 || piece.position % kBlockBytes != 0)
      k.fatal("file_write_direct() of a piece that is not whole pages");
    for (int other = 0; other < i; ++other) {
      if (piece.position < pieces[other].position + pieces[other].bytes &&
          pieces[other].position < piece.position + piece.bytes)
        k.fatal("file_write_direct() of pieces that overlap");
    }
    pages += piece.bytes / kBlockBytes;
  }
  if (batch.busy || count > batch.pieces_max || pages > static_cast<u64>(batch.pages_max))
    k.fatal("file_write_direct() of more than its batch is made for");
}

// 1: it may begin; else its result.
int begin_refused(Kernel& k, const FsState& fs) {
  if (!fs.takes_direct || fs.device == 0) return -EINVAL;
  if (const int error = k.fault(Fault::DirectWrite, -EINVAL); error != 0) return error;
  if (const int error = k.fault(Fault::FileWrite, -EIO); error != 0) return error;
  return k.fault(Fault::ZeroWrite, 1) != 0 ? 0 : 1;
}

int sync_loss(Kernel& k) {
  const int error = k.fault(Fault::SyncLoss, -ENOSPC);
  return error != 0 && k.io_rng.one_in(2) ? -EIO : error;
}

plat_parent* check_parent(Kernel& k, plat_parent* parent, const char* call) {
  if (k.files->parents.count(parent) == 0) k.fatal("%s() of a parent that is not locked", call);
  return parent;
}

}  // namespace

}  // namespace snbf::sim

using namespace snbf::sim;

extern "C" {

int snbf_plat_file_open(const char* path, int flags, int mode, plat_file** file) {
  Kernel& k = enter_sleeping("file_open");
  if (const int error = k.fault(Fault::FileOpen, -EIO); error != 0) return error;
  Inode* inode = nullptr;
  if (const int error = open_inode(k, path, flags, mode, &inode); error != 0) return error;
  *file = *k.files->open_files.insert(new plat_file{inode, flags, path}).first;
  return 0;
}

int snbf_plat_file_close(plat_file* file) {
  Kernel& k = enter_sleeping("file_close");
  check_file(k, file, "file_close");
  k.files->open_files.erase(file);
  Inode* inode = file->inode;
  delete file;
  fs_put_inode(k, *inode);
  return 0;
}

plat_s64 snbf_plat_file_read(plat_file* file, plat_u64 position, void* to, plat_size bytes) {
  Kernel& k = enter_sleeping("file_read");
  check_file(k, file, "file_read");
  if ((file->flags & PLAT_O_ACCMODE) == PLAT_O_WRONLY) return -EBADF;
  if (const int error = k.fault(Fault::FileRead, -EIO); error != 0) return error;
  if (bytes > 1 && k.fault(Fault::ShortRead, 1) != 0) bytes /= 2;
  return fs_read(k, *file->inode, position, static_cast<u8*>(to), bytes);
}

plat_s64 snbf_plat_file_write(plat_file* file, plat_u64 position, const void* from,
                              plat_size bytes) {
  Kernel& k = enter_sleeping("file_write");
  check_file(k, file, "file_write");
  if ((file->flags & PLAT_O_ACCMODE) == PLAT_O_RDONLY) return -EBADF;
  if (const int error = k.fault(Fault::FileWrite, -EIO); error != 0) return error;
  if (k.fault(Fault::ZeroWrite, 1) != 0) return 0;
  if (bytes > 1 && k.fault(Fault::ShortWrite, 1) != 0) bytes /= 2;
  const bool sync = (file->flags & PLAT_O_SYNC) != 0;
  const int loss = sync ? sync_loss(k) : 0;
  const s64 done =
      fs_write(k, *file->inode, position, static_cast<const u8*>(from), bytes, sync && loss == 0);
  return done > 0 && loss != 0 ? fs_fail_sync(k, *file->inode, loss) : done;
}

plat_s64 snbf_plat_file_write_pages(plat_file* file, plat_u64 position, void* const* pages,
                                    plat_size bytes) {
  plat_size done = 0;
  do {
    const plat_size piece = bytes - done < 4096 ? bytes - done : 4096;
    const plat_s64 moved = snbf_plat_file_write(file, position + done, pages[done / 4096], piece);
    if (moved < 0) return done > 0 ? static_cast<plat_s64>(done) : moved;
    done += static_cast<plat_size>(moved);
    if (static_cast<plat_size>(moved) < piece) break;
  } while (done < bytes);
  return static_cast<plat_s64>(done);
}

plat_direct_batch* snbf_plat_direct_batch_make(int pieces_max, int pages_max) {
  auto* batch = static_cast<plat_direct_batch*>(snbf_plat_virt_alloc(sizeof(plat_direct_batch)));
  if (batch != nullptr) *batch = {pieces_max, pages_max, false};
  return batch;
}

void snbf_plat_direct_batch_free(plat_direct_batch* batch) { snbf_plat_virt_free(batch); }

void snbf_plat_file_write_direct(plat_file* file, plat_direct_batch* batch, plat_file_piece* pieces,
                                 int count) {
  Kernel& k = enter_sleeping("file_write_direct");
  check_file(k, file, "file_write_direct");
  check_pieces(k, *batch, pieces, count);
  Inode& inode = *file->inode;
  FsState& fs = *inode.fs;
  std::vector<DirectWrite> writes(static_cast<std::size_t>(count));
  batch->busy = true;
  // One change to the file system from the first to the last: a freeze waits for all of it.
  journal_start(k, fs);
  for (int i = 0; i < count; ++i) {
    plat_file_piece& piece = pieces[i];
    piece.result = begin_refused(k, fs);
    if (piece.result != 1) continue;
    u64 bytes = piece.bytes;
    if (bytes > kBlockBytes && k.fault(Fault::ShortWrite, 1) != 0)
      bytes = bytes / 2 / kBlockBytes * kBlockBytes;
    fs_begin_direct(k, inode, piece.position, piece.pages, bytes,
                    writes[static_cast<std::size_t>(i)]);
  }
  for (int i = 0; i < count; ++i) {
    DirectWrite& write = writes[static_cast<std::size_t>(i)];
    if (pieces[i].result != 1) continue;
    fs_end_direct(k, inode, pieces[i].position, pieces[i].bytes, write);
    pieces[i].result = write.result;
  }
  journal_stop(k, fs);
  batch->busy = false;
}

int snbf_plat_file_sync(plat_file* file) {
  Kernel& k = enter_sleeping("file_sync");
  check_file(k, file, "file_sync");
  if (const int error = k.fault(Fault::FileSync, -EIO); error != 0) return error;
  if (const int error = sync_loss(k); error != 0) return fs_fail_sync(k, *file->inode, error);
  return fs_sync_inode(k, *file->inode);
}

plat_u64 snbf_plat_file_size(plat_file* file) {
  Kernel& k = enter_sleeping("file_size");
  check_file(k, file, "file_size");
  return file->inode->fs->meta.inodes[file->inode->number].size;
}

int snbf_plat_path_lookup(const char* path, int follow, plat_path** found) {
  Kernel& k = enter_sleeping("path_lookup");
  if (const int error = k.fault(Fault::PathLookup, -ENOENT); error != 0) return error;
  Place place;
  if (const int error = resolve(k, path, follow != 0, &place); error != 0) return error;
  if (place.inode == 0) return -ENOENT;
  const InodeMeta meta = place.fs->meta.inodes[place.inode];
  if (place.trailing_slash && (meta.mode & kTypeMask) != kTypeDir) return -ENOTDIR;
  *found = *k.files->paths.insert(new plat_path{place, meta}).first;
  return 0;
}

void snbf_plat_path_put(plat_path* path) {
  Kernel& k = enter_sleeping("path_put");
  if (k.files->paths.erase(path) == 0) k.fatal("path_put() of a path that is gone");
  delete path;
}

void snbf_plat_path_info(const plat_path* path, plat_path_info* info) {
  Kernel& k = enter("path_info");
  if (k.files->paths.count(const_cast<plat_path*>(path)) == 0)
    k.fatal("path_info() of a path that is gone");
  info->has_inode = 1;
  info->mode = static_cast<int>(path->meta.mode);
  info->device = path->meta.device;
  info->store_device = path->place.fs->device;
  info->file_system = path->place.fs->number;
  info->inode_number = path->place.inode;
  info->entry = path;
  info->inode = path->place.fs->inode(path->place.inode);
  info->name = path->place.last.c_str();
}

int snbf_plat_parent_lock(const char* path, plat_parent** parent) {
  Kernel& k = enter_sleeping("parent_lock");
  if (const int error = k.fault(Fault::ParentLock, -ENOENT); error != 0) return error;
  Place child;
  if (const int error = resolve(k, path, false, &child); error != 0) return error;
  Place up;
  const std::string above = child.last_normal ? parent_of(child.absolute) : child.absolute;
  if (const int error = resolve(k, above, true, &up); error != 0) return error;
  if (up.inode == 0) return -ENOENT;
  if ((up.fs->meta.inodes[up.inode].mode & kTypeMask) != kTypeDir) return -ENOTDIR;
  Inode* directory = up.fs->inode(up.inode);
  k.lock(directory->lock);
  *parent = *k.files->parents.insert(new plat_parent{child, directory}).first;
  return 0;
}

int snbf_plat_parent_child(plat_parent* parent) {
  Kernel& k = enter_sleeping("parent_child");
  check_parent(k, parent, "parent_child");
  Place& child = parent->child;
  if (!child.last_normal) return -EEXIST;
  auto at = child.fs->meta.names.find(child.rel);
  child.inode = at == child.fs->meta.names.end() ? 0 : at->second;
  if (child.trailing_slash && child.inode == 0) return -ENOENT;
  parent->looked_up = true;
  return 0;
}

int snbf_plat_parent_mknod(plat_parent* parent, int mode, plat_devt device) {
  Kernel& k = enter_sleeping("parent_mknod");
  check_parent(k, parent, "parent_mknod");
  if (!parent->looked_up) k.fatal("parent_mknod() before parent_child()");
  if (const int error = k.fault(Fault::Mknod, -ENOSPC); error != 0) return error;
  u64 number = 0;
  return fs_create(k, *parent->child.fs, parent->child.rel,
                   {.mode = static_cast<u32>(mode), .device = device}, &number);
}

int snbf_plat_parent_unlink(plat_parent* parent) {
  Kernel& k = enter_sleeping("parent_unlink");
  check_parent(k, parent, "parent_unlink");
  if (!parent->looked_up) k.fatal("parent_unlink() before parent_child()");
  if (const int error = k.fault(Fault::Unlink, -EIO); error != 0) return error;
  return fs_unlink(k, *parent->child.fs, parent->child.rel);
}

void snbf_plat_parent_unlock(plat_parent* parent) {
  Kernel& k = enter_sleeping("parent_unlock");
  check_parent(k, parent, "parent_unlock");
  if (parent->directory->lock.owner != k.current) k.fatal("parent_unlock() by another task");
  k.files->parents.erase(parent);
  k.unlock(parent->directory->lock);
  delete parent;
}
}
