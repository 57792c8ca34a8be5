// SPDX-License-Identifier: GPL-2.0-only
#define XXH_INLINE_ALL
#include "capture_journal.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <xxhash.h>

#include <nlohmann/json.hpp>

#include "files.h"

namespace snbf {

namespace {

constexpr int kFormat = 2;
constexpr size_t kHashCharacters = 16;

std::string hash_text(const std::string& text) {
  return fmt::format("{:016x}", XXH3_64bits(text.data(), text.size()));
}

void append(std::string* text, const Extents& extents) {
  text->append(reinterpret_cast<const char*>(extents.bytes().data()), extents.bytes().size());
}

bool cut(const std::string& text, size_t* at, Extents* extents) {
  const size_t size = extents->bytes().size();
  if (text.size() - *at < size) return false;
  std::copy_n(text.begin() + static_cast<ptrdiff_t>(*at), size, extents->bytes().begin());
  *at += size;
  return true;
}

}  // namespace

std::string encode(const CaptureRecord& record) {
  const nlohmann::ordered_json head = {{"snbf_capture", kFormat},
                                       {"captured", record.captured},
                                       {"full", record.full},
                                       {"node", record.node_uuid},
                                       {"destination", record.destination},
                                       {"point", record.point},
                                       {"extents", record.incr.extent_cnt()},
                                       {"extent_size", record.incr.extent_size()},
                                       {"size", record.incr.dev_size()}};
  std::string text = head.dump() + "\n";
  if (record.captured) {
    append(&text, record.incr);
    if (record.full) append(&text, record.diff);
  }
  return text + hash_text(text);
}

std::optional<CaptureRecord> decode(const std::string& text) {
  if (text.size() < kHashCharacters) return std::nullopt;
  const std::string body = text.substr(0, text.size() - kHashCharacters);
  if (hash_text(body) != text.substr(body.size())) return std::nullopt;
  const size_t line = body.find('\n');
  const auto head = nlohmann::json::parse(body.substr(0, line), nullptr, false);
  if (line == std::string::npos || head.is_discarded() || !head.is_object()) return std::nullopt;
  CaptureRecord record;
  try {
    if (head.at("snbf_capture") != kFormat) return std::nullopt;
    record.captured = head.at("captured");
    record.full = head.at("full");
    record.node_uuid = head.at("node");
    record.destination = head.at("destination");
    record.point = head.at("point");
    record.incr = Extents(head.at("extents"), head.at("extent_size"), head.at("size"));
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  record.diff = record.incr;
  size_t at = line + 1;
  if (record.captured && !cut(body, &at, &record.incr)) return std::nullopt;
  if (record.captured && record.full && !cut(body, &at, &record.diff)) return std::nullopt;
  return at == body.size() ? std::optional(record) : std::nullopt;
}

CaptureJournal::CaptureJournal(const std::string& bmp_dir, uint32_t minor)
    : path_(fmt::format("{}/snbf{}.capture", bmp_dir == "/" ? "" : bmp_dir, minor)) {}

bool CaptureJournal::exists() const {
  struct stat about;
  return ::stat(path_.c_str(), &about) == 0;
}

std::optional<CaptureRecord> CaptureJournal::read() const {
  std::string text;
  if (!read_file(path_, &text)) return std::nullopt;
  if (auto record = decode(text)) return record;
  CaptureRecord unknown;
  unknown.full = true;
  return unknown;
}

void CaptureJournal::write(const CaptureRecord& record) const {
  replace_file(path_, encode(record));
}

void CaptureJournal::drop() const {
  remove_file(path_);
  sync_directory(path_.substr(0, path_.rfind('/') + 1));
}

}  // namespace snbf
