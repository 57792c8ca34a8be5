// SPDX-License-Identifier: GPL-2.0-only
#include "last_capture.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include "handle.h"
#include "libsnbf_capture.h"
#include "record_file.h"

namespace {

constexpr const char* kHeading = "snbf-last 1";

std::string last_path(const snbf_info& filter) {
  return snbf::lib::bmp_dir_of(filter) + "/snbf" + std::to_string(filter.minor) + ".last";
}

// The file of another node, or one that is damaged, says nothing of this one.
int read_last(const snbf_info& filter, libsnbf_last_capture* out) {
  libsnbf_last_capture last{};
  std::string uuid;
  *out = last;
  const int rc = snbf::lib::read_record(last_path(filter), kHeading,
                                        [&](const std::string& key, const std::string& value) {
                                          if (key == "uuid") uuid = value;
                                          if (key == "any")
                                            last.any = std::strtoll(value.c_str(), nullptr, 10);
                                          if (key == "full")
                                            last.full = std::strtoll(value.c_str(), nullptr, 10);
                                          return true;
                                        });
  if (rc == 0 && uuid == filter.uuid) *out = last;
  return rc == -ENOENT || rc == -EBADMSG ? 0 : rc;
}

}  // namespace

namespace snbf::lib {

void note_capture(const snbf_info& filter, bool full, int64_t time) {
  libsnbf_last_capture last;
  if (read_last(filter, &last) != 0) return;  // it may say more than this one capture
  last.any = time;
  if (full) last.full = time;
  write_record(last_path(filter), kHeading,
               {{"uuid", filter.uuid},
                {"any", std::to_string(last.any)},
                {"full", std::to_string(last.full)}});
}

}  // namespace snbf::lib

extern "C" int libsnbf_capture_last(libsnbf* handle, uint32_t filter_minor,
                                    libsnbf_last_capture* out) {
  return snbf::lib::at_border([&] {
    snbf_info node;
    *out = libsnbf_last_capture{};
    if (int rc = libsnbf_get_info(handle, filter_minor, &node); rc != 0) return rc;
    if (node.dev_type != SNBF_DEV_FILTER) return -EINVAL;
    return read_last(node, out);
  });
}
