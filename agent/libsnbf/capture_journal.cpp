// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "capture_journal.h"

#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdlib>

#include "handle.h"
#include "record_file.h"

namespace snbf::lib {

namespace {

constexpr const char* kHeading = "snbf-capture 3";
constexpr size_t kHashCharacters = 16;

std::string hash_text(const std::string& text) {
  return hex64(XXH3_64bits(text.data(), text.size()));
}

bool flag_from(const std::string& value, bool* out) {
  *out = value == "1";
  return value == "0" || value == "1";
}

bool take(CaptureRecord* record, size_t* bits, const std::string& key, const std::string& value) {
  if (key == "captured") return flag_from(value, &record->captured);
  if (key == "full") return flag_from(value, &record->full);
  if (key == "node") record->node_uuid = value;
  if (key == "destination") record->destination = value;
  if (key == "point") record->point = value;
  if (key == "time") record->time = std::strtoll(value.c_str(), nullptr, 10);
  if (key == "bits") *bits = std::strtoull(value.c_str(), nullptr, 10);
  return true;
}

bool cut(const std::string& text, size_t* at, size_t size, Bits* bits) {
  if (text.size() - *at < size) return false;
  bits->assign(text.begin() + static_cast<ptrdiff_t>(*at),
               text.begin() + static_cast<ptrdiff_t>(*at + size));
  *at += size;
  return true;
}

}  // namespace

std::string encode(const CaptureRecord& record) {
  std::string text = std::string(kHeading) + "\n";
  const auto line = [&text](const char* key, const std::string& value) {
    text += std::string(key) + "=" + value + "\n";
  };
  line("captured", record.captured ? "1" : "0");
  line("full", record.full ? "1" : "0");
  line("node", record.node_uuid);
  line("destination", record.destination);
  line("point", record.point);
  line("time", std::to_string(record.time));
  line("bits", std::to_string(record.captured ? record.incr.size() : 0));
  text += "\n";
  if (record.captured) {
    text.append(record.incr.begin(), record.incr.end());
    if (record.full) text.append(record.diff.begin(), record.diff.end());
  }
  return text + hash_text(text);
}

std::optional<CaptureRecord> decode(const std::string& text) {
  if (text.size() < kHashCharacters) return std::nullopt;
  const std::string body = text.substr(0, text.size() - kHashCharacters);
  if (hash_text(body) != text.substr(body.size())) return std::nullopt;
  CaptureRecord record;
  size_t bits = 0;
  size_t at = 0;
  for (bool first = true;; first = false) {
    const size_t end = body.find('\n', at);
    if (end == std::string::npos) return std::nullopt;
    const std::string line = body.substr(at, end - at);
    at = end + 1;
    if (first && line != kHeading) return std::nullopt;
    if (first) continue;
    if (line.empty()) break;
    const size_t equals = line.find('=');
    if (equals == std::string::npos) return std::nullopt;
    if (!take(&record, &bits, line.substr(0, equals), line.substr(equals + 1))) return std::nullopt;
  }
  if (record.captured && !cut(body, &at, bits, &record.incr)) return std::nullopt;
  if (record.captured && record.full && !cut(body, &at, bits, &record.diff)) return std::nullopt;
  return at == body.size() ? std::optional(record) : std::nullopt;
}

CaptureJournal::CaptureJournal(const std::string& bmp_dir, uint32_t minor)
    : path_((bmp_dir == "/" ? "" : bmp_dir) + "/snbf" + std::to_string(minor) + ".capture") {}

int CaptureJournal::read(std::optional<CaptureRecord>* out) const {
  std::string text;
  out->reset();
  const int rc = read_file(path_, &text);
  if (rc == -ENOENT) return 0;
  if (rc != 0) return rc;
  *out = decode(text);
  if (!*out) out->emplace().full = true;
  struct stat about;
  if ((*out)->time == 0 && ::stat(path_.c_str(), &about) == 0) (*out)->time = about.st_mtime;
  return 0;
}

int CaptureJournal::write(const CaptureRecord& record) const {
  for (const std::string* text : {&record.node_uuid, &record.destination, &record.point}) {
    if (text->find('\n') != std::string::npos) return -EINVAL;
  }
  return replace_file(path_, encode(record));
}

int CaptureJournal::drop() const {
  if (::unlink(path_.c_str()) < 0 && errno != ENOENT) return -errno;
  return sync_directory(path_.substr(0, path_.rfind('/') + 1));
}

}  // namespace snbf::lib
