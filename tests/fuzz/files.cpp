#include "files.h"

#include <algorithm>
#include <cstring>

#include "platform.h"
#include "platform/file.h"

namespace snbf::fuzz {

FuzzFiles files;

namespace {

constexpr int kNoEntry = -2;
constexpr int kIoError = -5;
constexpr int kInvalid = -22;
// A file that grows beyond what a test asks for has a wrong place in it.
constexpr uint64_t kFileBytesMax = 1 << 20;

bool fails() { return files.fails_at != 0 && --files.fails_at == 0; }

size_t bytes_of_call(size_t bytes) {
  return files.call_bytes_max != 0 ? std::min<size_t>(bytes, files.call_bytes_max) : bytes;
}

}  // namespace

}  // namespace snbf::fuzz

using namespace snbf::fuzz;

struct plat_file {
  std::vector<uint8_t>* bytes;
};

extern "C" {

int snbf_plat_file_open(const char* path, int flags, int, plat_file** file) {
  if (fails()) return kIoError;
  if ((flags & PLAT_O_CREAT) == 0 && files.bytes.count(path) == 0) return kNoEntry;
  std::vector<uint8_t>& bytes = files.bytes[path];
  if ((flags & PLAT_O_TRUNC) != 0) bytes.clear();
  *file = new plat_file{&bytes};
  ++files.open;
  return 0;
}

int snbf_plat_file_close(plat_file* file) {
  delete file;
  --files.open;
  return 0;
}

plat_s64 snbf_plat_file_read(plat_file* file, plat_u64 position, void* to, plat_size bytes) {
  if (fails()) return kIoError;
  const std::vector<uint8_t>& from = *file->bytes;
  if (position >= from.size()) return 0;
  const size_t count = std::min<size_t>(bytes_of_call(bytes), from.size() - position);
  memcpy(to, from.data() + position, count);
  return static_cast<plat_s64>(count);
}

plat_s64 snbf_plat_file_write(plat_file* file, plat_u64 position, const void* from,
                              plat_size bytes) {
  if (fails()) return kIoError;
  const size_t count = bytes_of_call(bytes);
  if (position > kFileBytesMax || count > kFileBytesMax) stop("a write far behind the file");
  if (file->bytes->size() < position + count) file->bytes->resize(position + count);
  memcpy(file->bytes->data() + position, from, count);
  return static_cast<plat_s64>(count);
}

plat_s64 snbf_plat_file_write_pages(plat_file* file, plat_u64 position, void* const* pages,
                                    plat_size bytes) {
  return snbf_plat_file_write(file, position, pages[0], std::min<plat_size>(bytes, 4096));
}

// Not to be had here: the caller then writes in the usual way.
void snbf_plat_file_write_direct(plat_file*, plat_direct_batch*, plat_file_piece* pieces,
                                 int count) {
  for (int n = 0; n < count; ++n) pieces[n].result = kInvalid;
}

int snbf_plat_file_sync(plat_file*) { return fails() ? kIoError : 0; }
plat_u64 snbf_plat_file_size(plat_file* file) { return file->bytes->size(); }

// Nobody asks where a file lies: none lies on a node.
int snbf_plat_path_lookup(const char*, int, plat_path**) { return kNoEntry; }
void snbf_plat_path_put(plat_path*) {}
void snbf_plat_path_info(const plat_path*, plat_path_info*) {}
int snbf_plat_parent_lock(const char*, plat_parent**) { return kNoEntry; }
int snbf_plat_parent_child(plat_parent*) { return kNoEntry; }
int snbf_plat_parent_mknod(plat_parent*, int, plat_devt) { return kNoEntry; }
int snbf_plat_parent_unlink(plat_parent*) { return kNoEntry; }
void snbf_plat_parent_unlock(plat_parent*) {}

}  // extern "C"
