// SPDX-License-Identifier: GPL-2.0-only
#include "filter/bmpfile.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "base/string.h"
#include "core/log.h"
#include "core/memory.h"
#include "filter/bmp.h"
#include "filter/crc32.h"
#include "filter/kdirtyd.h"
#include "util/path.h"

namespace snbf {

namespace {

constexpr char kMagic[] = {'S', 'N', 'B', 'F', 'B', 'M', 'P'};
constexpr int kFileMode = 0600;
constexpr u32 kParkedFirstMs = 1000;

// Reads or writes one piece behind the other. The first failure stays, and what follows it does
// nothing.
class FileCursor {
 public:
  explicit FileCursor(snbf_file* file) : file_(file) {}

  bool read(void* to, int bytes) {
    if (error_ != 0) return false;
    const int rc = snbf_fread(file_, position_, to, bytes);
    return advance(rc, bytes);
  }
  bool write(const void* from, int bytes) {
    if (error_ != 0) return false;
    return advance(snbf_fwrite(file_, position_, from, bytes), bytes);
  }
  int error() const { return error_; }

 private:
  // True when all of the piece was moved.
  bool advance(int rc, int bytes) {
    if (rc < 0) {
      error_ = rc;
      return false;
    }
    position_ += static_cast<u64>(rc);
    return rc == bytes;
  }

  snbf_file* file_;
  u64 position_ = 0;
  int error_ = 0;
};

u32 checksum_of(const u8* bits, u32 bytes) {
  u32 checksum = 0xFFFFFFFF;
  return snbf_crc32(bits, static_cast<int>(bytes), &checksum);
}

using FileState = FileGuard::FileState;

// Reads a file into `bits` and judges it; only a Whole one is trusted, and `error` is set where reading failed.
// What a short read leaves out stays 0, so that the check behind it fails rather than see stale memory.
FileState read_bitmap(snbf_file* file, const ChangeBitmap& bitmap, u8* bits, int* error) {
  constexpr const char* kOrigin = "snbf_block_load_bmp";
  FileCursor cursor{file};
  const auto failed = [&] {
    *error = cursor.error();
    return cursor.error() != 0;
  };
  const auto ignored = [&](const char* format) {
    snbf_log(kLogError, format, kOrigin, bitmap.fname());
    return FileState::NoWhole;
  };
  char magic[sizeof(kMagic)] = {};
  cursor.read(magic, sizeof(magic));
  if (failed()) return FileState::Unknown;
  if (mem_compare(magic, kMagic, sizeof(kMagic)) != 0) {
    snbf_log(kLogError, "%s(): File %s is corrupt: Invalid prefix.", kOrigin, bitmap.fname());
    *error = -EIO;
    return FileState::NoWhole;
  }
  u8 dirty = 0;
  cursor.read(&dirty, sizeof(dirty));
  if (failed()) return FileState::Unknown;
  if (dirty != 0) return ignored("%s(): File %s is dirty. Ignoring file contents.");
  u32 size = 0;
  cursor.read(&size, sizeof(size));
  if (failed()) return FileState::Unknown;
  if (size != bitmap.size_bytes()) {
    ignored("%s(): File %s contains bitmap of invalid size. Ignoring file contents.");
    return FileState::Unknown;  // it is whole for a node with extents of another size, which may come again
  }
  u32 checksum = 0;
  cursor.read(&checksum, sizeof(checksum));
  if (failed()) return FileState::Unknown;
  const bool whole = cursor.read(bits, static_cast<int>(size));
  if (failed()) return FileState::Unknown;
  // A file cut short in a run of zeros would pass the checksum, but was left by a save that failed.
  if (!whole || checksum_of(bits, size) != checksum) {
    return ignored("%s(): File %s has invalid checksum. Ignoring file contents.");
  }
  return FileState::Whole;
}

int write_bitmap(snbf_file* file, const u8* bits, u32 size) {
  const u8 dirty = 0;
  const u32 checksum = checksum_of(bits, size);
  FileCursor cursor{file};
  cursor.write(kMagic, sizeof(kMagic));
  cursor.write(&dirty, sizeof(dirty));
  cursor.write(&size, sizeof(size));
  cursor.write(&checksum, sizeof(checksum));
  cursor.write(bits, static_cast<int>(size));
  return cursor.error();
}

// Writing such a file would pass through the filter and change the bitmap that is being saved.
bool lies_on_node(const char* path, const FilterNode& node) {
  return snbf_get_file_devt(path) == make_dev(static_cast<u32>(snbf_blk_major), node.minor);
}

// While the store of a file is away, the path leads into another file system. A file that is made there says
// nothing to whoever loads the one that was left behind. Once the file is open its store stays.
bool has_moved(const ChangeBitmap& bitmap) {
  return bitmap.store() != 0 && find_file_system(bitmap.fname()) != bitmap.store();
}

void note_store(const ChangeBitmap& bitmap) {
  if (const plat_devt found = find_file_system(bitmap.fname()); found != 0) bitmap.store() = found;
}

bool may_be_whole(const ChangeBitmap& bitmap) {
  SpinGuard hold{bitmap.node.bmp_spin};
  return bitmap.guard().may_be_whole();
}

int refuse_moved(const char* origin, const ChangeBitmap& bitmap) {
  snbf_log(kLogError, "%s(): %s lies in another file system than before. Is its store mounted?",
           origin, bitmap.fname());
  return -EIO;
}

bool is_absent(const char* path) {
  plat_path* found = nullptr;
  const int rc = snbf_get_file_dentry(path, 1, &found);
  if (found != nullptr) snbf_plat_path_put(found);
  return rc == -ENOENT || (rc == 0 && found == nullptr);
}

int load_locked(const ChangeBitmap& bitmap, u8* scratch) {
  constexpr const char* kOrigin = "snbf_block_load_bmp";
  int rc = -EIO;
  FileState state = FileState::Unknown;
  snbf_file* file = snbf_fopen(bitmap.fname(), PLAT_O_RDONLY, kFileMode);
  if (file != nullptr) {
    rc = 0;
    state = read_bitmap(file, bitmap, scratch, &rc);
    if (has_moved(bitmap)) {
      rc = refuse_moved(kOrigin, bitmap);
      state = FileState::Unknown;
    }
  } else if (is_absent(bitmap.fname())) {
    state = FileState::NoWhole;
  }
  if (bitmap.store() == 0 && file != nullptr) note_store(bitmap);
  bool lacks_writes;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    lacks_writes = bitmap.guard().lacks_writes();
    if (lacks_writes) state = FileState::Unknown;
    bitmap.guard().file_was_loaded(state);
    if (state == FileState::Whole) {
      bitmap.set_dirty(bitmap.guard().is_behind() ? 1 : 0);  // what was read may not be on disk
      mem_copy(bitmap.bits(), scratch, bitmap.size_bytes());
      bitmap.node.loads.fetch_add(1);
    } else {
      bitmap.fill(0xFF);
    }
  }
  wake_parking(bitmap.node);
  if (lacks_writes) {
    snbf_log(
        kLogError,
        "%s(): File %s lacks writes that have gone on without its flag. Ignoring file contents.",
        kOrigin, bitmap.fname());
  }
  if (file != nullptr) snbf_fclose(file);
  return rc;
}

// `state`: what the file is then, as a guard's end of a save has it.
int save_locked(const ChangeBitmap& bitmap, const u8* snapshot, FileState* state) {
  constexpr const char* kOrigin = "snbf_block_save_bmp";
  if (lies_on_node(bitmap.fname(), bitmap.node)) {
    snbf_log(kLogError,
             "%s(): Can't save bitmap to %s. The file must be moved to a different partition.",
             kOrigin, bitmap.fname());
    return -EINVAL;
  }
  const bool moved = has_moved(bitmap);
  if (moved && may_be_whole(bitmap)) return refuse_moved(kOrigin, bitmap);
  const int create = moved ? 0 : PLAT_O_CREAT;
  snbf_file* file =
      snbf_fopen(bitmap.fname(), PLAT_O_WRONLY | create | PLAT_O_TRUNC | PLAT_O_SYNC, kFileMode);
  if (file == nullptr) return moved ? refuse_moved(kOrigin, bitmap) : -EIO;
  if (!moved && has_moved(bitmap)) {  // its store went away just then
    snbf_fclose(file);
    return refuse_moved(kOrigin, bitmap);
  }
  note_store(bitmap);
  const int rc = write_bitmap(file, snapshot, bitmap.size_bytes());
  *state = rc == 0 ? FileState::Whole : FileState::Unknown;
  snbf_fclose(file);
  return rc;
}

// `create` is O_CREAT or 0. `misplaced` is set where no flag can be raised for as long as the file lies there.
int write_flag_locked(const ChangeBitmap& bitmap, int flag, int create, bool* misplaced) {
  constexpr const char* kOrigin = "snbf_block_write_dirty_flag";
  *misplaced = lies_on_node(bitmap.fname(), bitmap.node);
  if (*misplaced) {
    snbf_log(kLogError,
             "%s(): Can't set dirty flag in %s. The file must be moved to a different partition.",
             kOrigin, bitmap.fname());
    return -EINVAL;
  }
  const int truncate = flag != 0 ? PLAT_O_TRUNC : 0;
  const bool moved = has_moved(bitmap);
  if (moved) create = 0;
  snbf_file* file =
      snbf_fopen(bitmap.fname(), PLAT_O_WRONLY | create | PLAT_O_SYNC | truncate, kFileMode);
  if (file == nullptr) return moved ? refuse_moved(kOrigin, bitmap) : -EIO;
  const u8 dirty = flag != 0 ? 1 : 0;
  FileCursor cursor{file};
  cursor.write(kMagic, sizeof(kMagic));
  cursor.write(&dirty, sizeof(dirty));
  // What lies there may be a copy, and is raised all the same; but the file that was left behind is as it was.
  const bool is_elsewhere = has_moved(bitmap);
  snbf_fclose(file);
  if (is_elsewhere && may_be_whole(bitmap)) return refuse_moved(kOrigin, bitmap);
  note_store(bitmap);
  return cursor.error();
}

void ask_where_the_file_is_behind(const ChangeBitmap& bitmap) {
  bool must_ask;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    must_ask = bitmap.guard().ask_instead_of_save();
  }
  if (must_ask) snbf_sched_write_dirty_flag(bitmap.node, bitmap.type());
}

// A save makes parked writes wait on. So that one after another cannot keep them for ever, those that are there
// go first; within a limit, for the save may be what helps them. Not with the mutex that their flag needs.
void let_parked_writes_go(FilterNode& node) {
  if (!node.bmp_mutex.is_mine()) wait_for_parked(node, kParkedFirstMs);
}

int is_dirty(FilterNode& node, u32 type) {
  const ChangeBitmap bitmap{node, type};
  SpinGuard hold{bitmap.node.bmp_spin};
  return bitmap.is_dirty();
}

int write_flag(FilterNode& node, u32 type, int flag, int create) {
  snbf_log(2, "%s(): Writing dirty flag %d into %s bitmap of snbf(%d, %d)",
           "snbf_block_write_dirty_flag", flag, bmp_type_text(type), snbf_blk_major,
           static_cast<int>(node.minor));
  const ChangeBitmap bitmap{node, type};
  ServesWrites serving;
  KsMutexGuard file_work{node.bmp_mutex};
  if (flag == 0) snbf_kill_dirty_requests(node, type);
  bool misplaced;
  const int rc = write_flag_locked(bitmap, flag, create, &misplaced);
  // Kept: the file counts as what it was, and so nobody who writes through the node may take its flag down.
  if (flag == 0) return rc;
  const bool is_hidden = misplaced && has_moved(bitmap);
  bool must_call = false;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    FileGuard& guard = bitmap.guard();
    guard.request_is_gone();
    if (rc == 0) guard.flag_is_on_disk();
    // Nothing is gained by waiting; but what only hides the file may go away again.
    if (is_hidden) {
      must_call = !guard.tries_again();
      guard.give_up_for_now();
    } else if (misplaced) {
      guard.give_up_for_good();
    }
  }
  if (must_call) ask_for_help(node);
  wake_parking(node);
  return rc;
}

}  // namespace

}  // namespace snbf

using namespace snbf;

int snbf_block_load_bmp(FilterNode& node, u32 type) {
  constexpr const char* kOrigin = "snbf_block_load_bmp";
  snbf_log(2, "%s(): Loading %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(type),
           snbf_blk_major, static_cast<int>(node.minor));
  const ChangeBitmap bitmap{node, type};
  VirtBuffer scratch{bitmap.size_bytes()};
  if (!scratch) {
    snbf_log(kLogError, "%s(): Failed to allocate %d bytes.", kOrigin,
             static_cast<int>(bitmap.size_bytes()));
    return -ENOMEM;
  }
  ServesWrites serving;
  KsMutexGuard file_work{node.bmp_mutex};
  return load_locked(bitmap, scratch.data());
}

int snbf_block_load_bmps(FilterNode& node) {
  snbf_log(1, "%s(): Loading incr/diff bitmaps", "snbf_block_load_bmps");
  ServesWrites serving;
  KsMutexGuard file_work{node.bmp_mutex};
  const int incr_rc = snbf_block_load_bmp(node, SNBF_BMP_INCR);
  const int diff_rc = snbf_block_load_bmp(node, SNBF_BMP_DIFF);
  return incr_rc != 0 ? incr_rc : diff_rc;
}

// 1. Snapshot under bmp_spin, the dirty field down: a bit set from here on raises it again and
// queues a flag.
// 2. Under bmp_mutex: cancel the flags queued until now, which this save makes needless; write the
// whole file.
// 3. On failure the dirty field goes up again.
//    What only a command had put there is in no file then: the flag is asked for, once. (A flag that is served between
//    1 and 2 raises the field, too: one save too many.)
// 4. Of writes that came in between, and wait: those whose bits are in the file may go, and for the others
// the flag is asked for again, since 2 has cancelled it.
// Kept: a flag queued late, for a bit that is in the file, makes a file dirty that is whole: the next save, or the
// stop, makes it whole again.
int snbf_block_save_bmp(FilterNode& node, u32 type) {
  constexpr const char* kOrigin = "snbf_block_save_bmp";
  snbf_log(2, "%s(): Saving %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(type),
           snbf_blk_major, static_cast<int>(node.minor));
  const ChangeBitmap bitmap{node, type};
  VirtBuffer snapshot{bitmap.size_bytes()};
  if (!snapshot) {
    snbf_log(kLogError, "%s(): Failed to allocate %d bytes.", kOrigin,
             static_cast<int>(bitmap.size_bytes()));
    ask_where_the_file_is_behind(bitmap);
    return -ENOMEM;
  }
  let_parked_writes_go(node);
  u64 number;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    bitmap.set_dirty(0);
    mem_copy(snapshot.data(), bitmap.bits(), bitmap.size_bytes());
    number = bitmap.guard().begin_save();
  }
  ServesWrites serving;
  KsMutexGuard file_work{node.bmp_mutex};
  snbf_kill_dirty_requests(node, type);
  FileState state = FileState::NoWhole;
  const int rc = save_locked(bitmap, snapshot.data(), &state);
  bool must_ask;
  bool must_call;
  {
    SpinGuard hold{bitmap.node.bmp_spin};
    must_ask = bitmap.guard().end_save(number, state) || bitmap.guard().ask_instead_of_save();
    // kflagd may have gone to sleep, for the flag that this save has overwritten was up.
    must_call = bitmap.guard().tries_again();
    // A save with a newer snapshot may have been faster, and this one has put the older back.
    if (rc != 0 || bitmap.guard().is_behind()) bitmap.set_dirty(1);
  }
  if (must_ask) snbf_sched_write_dirty_flag(node, type);
  if (must_call) ask_for_help(node);
  wake_parking(node);
  return rc;
}

int snbf_block_save_dirty_bmps(FilterNode& node) {
  snbf_log(1, "%s(): Saving dirty incr/diff bitmaps to disk", "snbf_block_save_dirty_bmps");
  let_parked_writes_go(node);
  ServesWrites serving;
  KsMutexGuard file_work{node.bmp_mutex};
  int incr_rc = 0;
  int diff_rc = 0;
  if (is_dirty(node, SNBF_BMP_INCR)) incr_rc = snbf_block_save_bmp(node, SNBF_BMP_INCR);
  if (is_dirty(node, SNBF_BMP_DIFF)) diff_rc = snbf_block_save_bmp(node, SNBF_BMP_DIFF);
  return incr_rc != 0 ? incr_rc : diff_rc;
}

int snbf_block_write_dirty_flag(FilterNode& node, u32 type, int flag) {
  return write_flag(node, type, flag, PLAT_O_CREAT);
}

void snbf::retry_dirty_flag(FilterNode& node, u32 type) { write_flag(node, type, 1, 0); }

int snbf_ioctl_load_bmp(Node& node, snbf_bmp_sel& record) {
  constexpr const char* kOrigin = "snbf_ioctl_load_bmp";
  snbf_log(1, "%s(): Loading %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  return snbf_block_load_bmp(as_filter(node), record.type);
}

int snbf_ioctl_save_bmp(Node& node, snbf_bmp_sel& record) {
  constexpr const char* kOrigin = "snbf_ioctl_save_bmp";
  snbf_log(1, "%s(): Saving %s bitmap of snbf(%d, %d)", kOrigin, bmp_type_text(record.type),
           snbf_blk_major, static_cast<int>(node.minor));
  if (int rc = check_bmp_command(kOrigin, node, record.type); rc != 0) return rc;
  return snbf_block_save_bmp(as_filter(node), record.type);
}
