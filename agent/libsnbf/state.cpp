// SPDX-License-Identifier: GPL-2.0-only
// What outlives an attachment: the state record beside the bitmap files, and a second opinion on
// those files, so that the reason for distrusting one can be told.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "handle.h"
#include "record_file.h"

namespace {

using snbf::lib::hex64;
using snbf::lib::put_text;

constexpr const char* kHeading = "snbf-state 1";

std::string state_path(const char* bmp_dir, uint32_t minor) {
  return std::string(bmp_dir) + "/snbf" + std::to_string(minor) + ".state";
}

bool take(libsnbf_state& state, const std::string& key, const std::string& value) {
  if (key == "name") return put_text(state.name, value);
  if (key == "uuid") return put_text(state.uuid, value);
  if (key == "hdd") return put_text(state.hdd_name, value);
  if (key == "boot") return put_text(state.boot_id, value);
  if (key == "distrust") return put_text(state.distrust, value);
  if (key == "incr-point") return put_text(state.incr_point, value);
  if (key == "diff-point") return put_text(state.diff_point, value);
  if (key == "device") return put_text(state.device, value);
  if (key == "clean") state.stopped_clean = value == "1";
  if (key == "head") state.head_hash = std::strtoull(value.c_str(), nullptr, 16);
  if (key == "epoch") state.epoch = std::strtoull(value.c_str(), nullptr, 16);
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
uint32_t crc_register(std::string_view bytes) {
  static constexpr auto kTable = make_crc_table();
  uint32_t value = 0xFFFFFFFFu;
  for (const char byte : bytes) {
    value = (value >> 8) ^ kTable[(value ^ static_cast<unsigned char>(byte)) & 0xFF];
  }
  return value;
}

constexpr std::string_view kMagic = "SNBFBMP";
constexpr size_t kHeadBytes = 16;  // the magic, the dirty byte, the size, the checksum

uint32_t number_at(std::string_view file, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

// What lies behind the bitmap is nobody's.
libsnbf_verdict judge(std::string_view file, uint32_t size_bytes) {
  if (file.size() <= kMagic.size() || !file.starts_with(kMagic)) return LIBSNBF_CORRUPT;
  if (file[kMagic.size()] != 0) return LIBSNBF_DIRTY;
  if (file.size() < 12 || number_at(file, 8) != size_bytes) {
    return LIBSNBF_WRONG_SIZE;
  }
  if (file.size() < kHeadBytes + size_bytes) return LIBSNBF_WRONG_CHECKSUM;
  return crc_register(file.substr(kHeadBytes, size_bytes)) == number_at(file, 12)
             ? LIBSNBF_GOOD
             : LIBSNBF_WRONG_CHECKSUM;
}

}  // namespace

extern "C" {

int libsnbf_state_read(const char* bmp_dir, uint32_t minor, libsnbf_state* out) {
  return snbf::lib::at_border([&] {
    *out = libsnbf_state{};
    return snbf::lib::read_record(
        state_path(bmp_dir, minor), kHeading,
        [out](const std::string& key, const std::string& value) { return take(*out, key, value); });
  });
}

int libsnbf_state_write(const char* bmp_dir, uint32_t minor, const libsnbf_state* state) {
  return snbf::lib::at_border([&] {
    return snbf::lib::write_record(state_path(bmp_dir, minor), kHeading,
                                   {{"name", state->name},
                                    {"uuid", state->uuid},
                                    {"hdd", state->hdd_name},
                                    {"boot", state->boot_id},
                                    {"clean", state->stopped_clean ? "1" : "0"},
                                    {"head", hex64(state->head_hash)},
                                    {"epoch", hex64(state->epoch)},
                                    {"distrust", state->distrust},
                                    {"incr-point", state->incr_point},
                                    {"diff-point", state->diff_point},
                                    {"device", state->device}});
  });
}

int libsnbf_judge_bmp_file(const char* path, uint32_t size_bytes, libsnbf_verdict* out) {
  return snbf::lib::at_border([&] {
    std::string text;
    const int rc = snbf::lib::read_file(path, &text);
    const bool missing = rc == -ENOENT || rc == -ENOTDIR;
    if (rc != 0 && !missing) return rc;
    *out = missing ? LIBSNBF_MISSING : judge(text, size_bytes);
    return 0;
  });
}

}  // extern "C"
