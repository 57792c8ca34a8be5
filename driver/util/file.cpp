// SPDX-License-Identifier: GPL-2.0-only
#include "util/file.h"

#include "base/assert.h"
#include "base/errno.h"
#include "core/log.h"

using namespace snbf;

namespace {

const char* access_word(int flags) {
  switch (flags & PLAT_O_ACCMODE) {
    case PLAT_O_RDONLY:
      return "reading";
    case PLAT_O_WRONLY:
      return "writing";
    default:
      return "reading and writing";
  }
}

bool is_open(const snbf_file* file) { return file != nullptr && file->filp != nullptr; }

void free_handle(snbf_file* file) {
  snbf_plat_heap_free(file->name);
  snbf_plat_heap_free(file);
}

snbf_file* alloc_handle(const char* path) {
  auto* file = static_cast<snbf_file*>(kzalloc(sizeof(snbf_file), PLAT_ALLOC_NORMAL));
  if (file == nullptr) return nullptr;
  const size_t name_bytes = text_length(path) + 1;
  file->name = static_cast<char*>(kzalloc(name_bytes, PLAT_ALLOC_NORMAL));
  if (file->name == nullptr) {
    free_handle(file);
    return nullptr;
  }
  mem_copy(file->name, path, name_bytes);
  return file;
}

}  // namespace

snbf_file* snbf_fopen(const char* path, int flags, int mode) {
  constexpr const char* kOrigin = "snbf_fopen";
  SNBF_ASSERT(path != nullptr);
  snbf_file* file = alloc_handle(path);
  if (file == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return nullptr;
  }
  if (int rc = snbf_plat_file_open(path, flags, mode, &file->filp); rc != 0) {
    snbf_log(kLogError, "%s(): Failed to open file %s for %s: errno=%d", kOrigin, path,
             access_word(flags), rc);
    free_handle(file);
    return nullptr;
  }
  return file;
}

namespace {

// `write_rest(done)` makes one call of the file's own write for what is left.
template <typename WriteRest>
int write_whole(const snbf_file* file, int count, WriteRest write_rest) {
  constexpr const char* kOrigin = "snbf_fwrite";
  if (!is_open(file)) {
    snbf_log(kLogError, "%s(): NULL or invalid file pointer passed as input!", kOrigin);
    return -EINVAL;
  }
  int done = 0;
  while (done < count) {
    const s64 rc = write_rest(done);
    if (rc < 0) {
      snbf_log(kLogError, "%s(): Failed to write %d bytes into %s: rc=%d", kOrigin, count - done,
               file->name, static_cast<int>(rc));
      return static_cast<int>(rc);
    }
    if (rc == 0) {
      snbf_log(kLogError, "%s(): Short write into %s: wrote %d instead of %d", kOrigin, file->name,
               done, count);
      return -EIO;
    }
    done += static_cast<int>(rc);
  }
  return done;
}

}  // namespace

int snbf_fwrite(snbf_file* file, u64 position, const void* from, int count) {
  return write_whole(file, count, [=](int done) {
    return snbf_plat_file_write(file->filp, position + static_cast<u64>(done),
                                static_cast<const u8*>(from) + done,
                                static_cast<size_t>(count - done));
  });
}

int snbf_fwrite_pages(snbf_file* file, u64 position, void* const* pages, int count) {
  return write_whole(file, count, [=](int done) {
    const u64 at = position + static_cast<u64>(done);
    const u32 in_page = static_cast<u32>(done) % kPageBytes;
    void* const* from = pages + static_cast<u32>(done) / kPageBytes;
    if (in_page == 0) {
      return snbf_plat_file_write_pages(file->filp, at, from, static_cast<size_t>(count - done));
    }
    // A call stopped within a page: the rest of that page by itself.
    const int rest = static_cast<int>(kPageBytes - in_page);
    const int bytes = rest < count - done ? rest : count - done;
    return snbf_plat_file_write(file->filp, at, static_cast<const u8*>(*from) + in_page,
                                static_cast<size_t>(bytes));
  });
}

int snbf_fwrite_direct(snbf_file* file, plat_direct_batch* batch, plat_file_piece* pieces,
                       int count) {
  snbf_plat_file_write_direct(file->filp, batch, pieces, count);
  int failed = 0;
  bool refused = false;
  for (int i = 0; i < count; ++i) {
    const int bytes = static_cast<int>(pieces[i].bytes);
    int rc = static_cast<int>(pieces[i].result);
    if (rc == bytes) continue;
    if (rc == -EINVAL) {
      refused = true;
      continue;
    }
    if (rc > 0) {
      rc = snbf_fwrite_pages(file, pieces[i].position, pieces[i].pages, bytes);
    } else {
      rc = write_whole(file, bytes, [rc](int) { return rc; });
    }
    if (rc < 0) failed = rc;
  }
  if (failed != 0) return failed;
  return refused ? -EINVAL : 0;
}

// Kept: where a write that makes no progress is an error, the end of the file is a short count, for
// the caller to judge.
int snbf_fread(snbf_file* file, u64 position, void* to, int count) {
  constexpr const char* kOrigin = "snbf_fread";
  if (!is_open(file)) {
    snbf_log(kLogError, "%s(): NULL or invalid file pointer passed as input!", kOrigin);
    return -EINVAL;
  }
  u8* bytes = static_cast<u8*>(to);
  int done = 0;
  while (done < count) {
    const s64 rc = snbf_plat_file_read(file->filp, position + static_cast<u64>(done), bytes + done,
                                       static_cast<size_t>(count - done));
    if (rc < 0) {
      snbf_log(kLogError, "%s(): Failed to read %d bytes from %s: rc=%d", kOrigin, count - done,
               file->name, static_cast<int>(rc));
      return static_cast<int>(rc);
    }
    if (rc == 0) {
      snbf_log(kLogError, "%s(): Unexpected EOF while trying to read %d bytes from %s", kOrigin,
               count - done, file->name);
      return done;
    }
    done += static_cast<int>(rc);
  }
  return done;
}

int snbf_fclose(snbf_file* file) {
  SNBF_ASSERT(file != nullptr);
  const int rc = file->filp != nullptr ? snbf_plat_file_close(file->filp) : 0;
  free_handle(file);
  return rc;
}

int snbf_ftruncate(const char* path) {
  SNBF_ASSERT(path != nullptr);
  snbf_file* file = snbf_fopen(path, PLAT_O_RDWR | PLAT_O_TRUNC | PLAT_O_LARGEFILE, 0600);
  if (file != nullptr) snbf_fclose(file);
  return 0;
}

int snbf_fsync(snbf_file* file) {
  SNBF_ASSERT(file != nullptr);
  return snbf_plat_file_sync(file->filp);
}
