// SPDX-License-Identifier: GPL-2.0-only
// What outlives an attachment: the state record beside the bitmap files, and a second opinion on
// those files, so that the reason for distrusting one can be told.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "handle.h"

namespace {

using snbf::lib::Fd;
using snbf::lib::put_text;

constexpr const char* kHeading = "snbf-state 1";

std::string state_path(const char* bmp_dir, uint32_t minor) {
  return std::string(bmp_dir) + "/snbf" + std::to_string(minor) + ".state";
}

int write_all(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? -errno : -EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

// New contents or the old ones after a crash, never a mixture: written aside, synced, renamed.
int replace_file(const std::string& path, const std::string& text) {
  const std::string aside = path + ".new";
  {
    Fd file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.ok()) return -errno;
    if (int rc = write_all(file.get(), text); rc != 0) return rc;
    if (::fsync(file.get()) < 0) return -errno;
  }
  if (::rename(aside.c_str(), path.c_str()) < 0) return -errno;
  Fd directory(::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.ok() || ::fsync(directory.get()) < 0) return -errno;
  return 0;
}

bool take(libsnbf_state& state, const std::string& key, const std::string& value) {
  if (key == "name") return put_text(state.name, value);
  if (key == "uuid") return put_text(state.uuid, value);
  if (key == "hdd") return put_text(state.hdd_name, value);
  if (key == "boot") return put_text(state.boot_id, value);
  if (key == "distrust") return put_text(state.distrust, value);
  if (key == "incr-point") return put_text(state.incr_point, value);
  if (key == "diff-point") return put_text(state.diff_point, value);
  if (key == "clean") state.stopped_clean = value == "1";
  if (key == "head") state.head_hash = std::strtoull(value.c_str(), nullptr, 16);
  return true;  // a key of a later version is passed over
}

constexpr std::array<uint32_t, 256> make_crc_table() {
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t value = byte;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320u : 0u);
    table[byte] = value;
  }
  return table;
}

// As the driver stores it: without the final inversion.
uint32_t crc_register(const std::vector<unsigned char>& bytes) {
  static constexpr auto kTable = make_crc_table();
  uint32_t value = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) value = (value >> 8) ^ kTable[(value ^ byte) & 0xFF];
  return value;
}

}  // namespace

extern "C" {

int libsnbf_state_read(const char* bmp_dir, uint32_t minor, libsnbf_state* out) {
  return snbf::lib::at_border([&] {
    *out = libsnbf_state{};
    errno = 0;
    std::ifstream file(state_path(bmp_dir, minor));
    if (!file) return errno ? -errno : -ENOENT;
    std::string line;
    if (!std::getline(file, line) || line != kHeading) return -EBADMSG;
    bool complete = false;
    while (std::getline(file, line)) {
      const size_t equals = line.find('=');
      if (line == "end") complete = true;
      if (equals == std::string::npos) continue;
      if (!take(*out, line.substr(0, equals), line.substr(equals + 1))) return -EBADMSG;
    }
    return complete ? 0 : -EBADMSG;
  });
}

int libsnbf_state_write(const char* bmp_dir, uint32_t minor, const libsnbf_state* state) {
  return snbf::lib::at_border([&] {
    char head[20];
    std::snprintf(head, sizeof head, "%016llx", static_cast<unsigned long long>(state->head_hash));
    const std::pair<const char*, std::string> fields[] = {
        {"name", state->name},
        {"uuid", state->uuid},
        {"hdd", state->hdd_name},
        {"boot", state->boot_id},
        {"clean", state->stopped_clean ? "1" : "0"},
        {"head", head},
        {"distrust", state->distrust},
        {"incr-point", state->incr_point},
        {"diff-point", state->diff_point},
    };
    std::string text = std::string(kHeading) + "\n";
    for (const auto& [key, value] : fields) {
      if (value.find('\n') != std::string::npos) return -EINVAL;
      text += std::string(key) + "=" + value + "\n";
    }
    return replace_file(state_path(bmp_dir, minor), text + "end\n");
  });
}

int libsnbf_judge_bmp_file(const char* path, uint32_t size_bytes, libsnbf_verdict* out) {
  return snbf::lib::at_border([&] {
    struct stat about;
    if (::stat(path, &about) < 0) {
      if (errno != ENOENT && errno != ENOTDIR) return -errno;
      *out = LIBSNBF_MISSING;
      return 0;
    }
    std::ifstream file(path, std::ios::binary);
    char magic[7];
    unsigned char dirty = 1;
    if (!file.read(magic, sizeof magic) || std::memcmp(magic, "SNBFBMP", sizeof magic) != 0 ||
        !file.read(reinterpret_cast<char*>(&dirty), 1)) {
      *out = LIBSNBF_CORRUPT;
      return 0;
    }
    uint32_t size = 0;
    uint32_t checksum = 0;
    if (dirty) {
      *out = LIBSNBF_DIRTY;
    } else if (!file.read(reinterpret_cast<char*>(&size), 4) || size != size_bytes) {
      *out = LIBSNBF_WRONG_SIZE;
    } else {
      std::vector<unsigned char> bits(size_bytes);
      const bool whole = file.read(reinterpret_cast<char*>(&checksum), 4) &&
                         file.read(reinterpret_cast<char*>(bits.data()), size_bytes);
      *out = whole && crc_register(bits) == checksum ? LIBSNBF_GOOD : LIBSNBF_WRONG_CHECKSUM;
    }
    return 0;
  });
}

}  // extern "C"
