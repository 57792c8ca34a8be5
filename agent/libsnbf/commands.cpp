// SPDX-License-Identifier: GPL-2.0-only
// One function a command.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "handle.h"

namespace {

using snbf::lib::HostLock;

int real_ioctl(void* context, uint32_t command, void* record) {
  const auto* handle = static_cast<const libsnbf*>(context);
  return ::ioctl(handle->control_fd, command, record) < 0 ? -errno : 0;
}

int send(libsnbf* handle, uint32_t command, void* record) {
  return handle->ioctl(handle->ioctl_context, command, record);
}

int send_minor(libsnbf* handle, uint32_t command, uint32_t minor) {
  snbf_minor_cmd record{minor};
  return send(handle, command, &record);
}

int send_sel(libsnbf* handle, uint32_t command, uint32_t minor, uint32_t type) {
  snbf_bmp_sel record{minor, type};
  return send(handle, command, &record);
}

int send_bits(libsnbf* handle, uint32_t command, uint32_t minor, uint32_t type, const void* bits,
              uint32_t size_bytes) {
  if (size_bytes > INT32_MAX) return -EINVAL;
  snbf_bmp_cmd record{minor, type, static_cast<int32_t>(size_bytes), 0,
                      reinterpret_cast<uintptr_t>(bits)};
  return send(handle, command, &record);
}

// The driver takes it, and then never lists it.
bool is_highest_minor(libsnbf* handle, int32_t minor) {
  uint32_t highest = 0;
  return minor >= 0 && libsnbf_minor_max(handle, &highest) == 0 &&
         static_cast<uint32_t>(minor) == highest;
}

const char* or_default(const char* text, const char* fallback) { return text ? text : fallback; }

}  // namespace

namespace snbf::lib {

int del_node_locked(libsnbf* handle, uint32_t minor) {
  return send_minor(handle, SNBF_DEL_NODE, minor);
}

int start_node_locked(libsnbf* handle, uint32_t minor) {
  return send_minor(handle, SNBF_START_NODE, minor);
}

int stop_node_locked(libsnbf* handle, uint32_t minor) {
  return send_minor(handle, SNBF_STOP_NODE, minor);
}

int add_snap_node_locked(libsnbf* handle, snbf_snap_node_cmd* record) {
  if (is_highest_minor(handle, record->snap_minor)) return -ERANGE;
  snbf_info filter{};
  if (int rc = libsnbf_get_info(handle, record->snbf_minor, &filter); rc != 0) return rc;
  if (filter.dev_type != SNBF_DEV_FILTER) return -EINVAL;
  if (filter.snap_cnt > 0) {
    snbf_info sibling{};
    if (int rc = libsnbf_get_info(handle, filter.snap_minors[0], &sibling); rc != 0) return rc;
    if (sibling.chunk_size != record->chunk_size) return -EINVAL;
  }
  return send(handle, SNBF_ADD_SNAP_NODE, record);
}

int resume_snap_locked(libsnbf* handle, const snbf_resume_cmd& record) {
  snbf_info info{};
  if (int rc = libsnbf_get_info(handle, record.minor, &info); rc != 0) return rc;
  if (info.dev_type != SNBF_DEV_SNAP) return -EINVAL;
  if (info.started) return -EALREADY;
  snbf_resume_cmd copy = record;
  return send(handle, SNBF_RESUME_SNAP, &copy);
}

}  // namespace snbf::lib

extern "C" {

int libsnbf_open(const libsnbf_options* options, libsnbf** out) {
  return snbf::lib::at_border([&] {
    const libsnbf_options none{};
    const libsnbf_options& with = options ? *options : none;
    auto* handle = new libsnbf;
    handle->lock_path = or_default(with.lock_path, "/run/snbf.lock");
    handle->sys_root = or_default(with.sys_root, "/sys");
    handle->proc_root = or_default(with.proc_root, "/proc");
    handle->dev_root = or_default(with.dev_root, "/dev");
    handle->ioctl = with.ioctl;
    handle->ioctl_context = with.ioctl_context;
    if (!handle->ioctl) {
      handle->control_fd =
          ::open(or_default(with.control, "/dev/snbf/control"), O_RDWR | O_CLOEXEC);
      if (handle->control_fd < 0) {
        const int error = errno;
        delete handle;
        return error == ENOENT || error == ENXIO ? -ENODEV : -error;
      }
      handle->ioctl = real_ioctl;
      handle->ioctl_context = handle;
    }
    *out = handle;
    return 0;
  });
}

void libsnbf_close(libsnbf* handle) {
  if (!handle) return;
  if (handle->control_fd >= 0) ::close(handle->control_fd);
  delete handle;
}

int libsnbf_add_filter_node(libsnbf* handle, snbf_filter_node_cmd* record) {
  if (is_highest_minor(handle, record->minor)) return -ERANGE;
  return send(handle, SNBF_ADD_FILTER_NODE, record);
}

int libsnbf_add_snap_node(libsnbf* handle, snbf_snap_node_cmd* record) {
  HostLock lock(*handle);
  return lock.error() ? lock.error() : snbf::lib::add_snap_node_locked(handle, record);
}

int libsnbf_del_node(libsnbf* handle, uint32_t minor) {
  HostLock lock(*handle);
  return lock.error() ? lock.error() : snbf::lib::del_node_locked(handle, minor);
}

int libsnbf_start_node(libsnbf* handle, uint32_t minor) {
  HostLock lock(*handle);
  return lock.error() ? lock.error() : snbf::lib::start_node_locked(handle, minor);
}

int libsnbf_stop_node(libsnbf* handle, uint32_t minor) {
  HostLock lock(*handle);
  return lock.error() ? lock.error() : snbf::lib::stop_node_locked(handle, minor);
}

int libsnbf_get_device_list(libsnbf* handle, uint32_t dev_type, snbf_device_list* out) {
  *out = snbf_device_list{};
  out->dev_type = dev_type;
  if (int rc = send(handle, SNBF_GET_DEVICE_LIST, out); rc != 0) return rc;
  return out->count <= SNBF_LIST_CAPACITY ? 0 : -EPROTO;
}

int libsnbf_get_info(libsnbf* handle, uint32_t minor, snbf_info* out) {
  *out = snbf_info{};
  out->minor = minor;
  if (int rc = send(handle, SNBF_GET_INFO, out); rc != 0) return rc;
  return out->snap_cnt <= SNBF_MAX_SNAPS ? 0 : -EPROTO;
}

int libsnbf_load_bmp(libsnbf* handle, uint32_t minor, uint32_t type) {
  return send_sel(handle, SNBF_LOAD_BMP, minor, type);
}

int libsnbf_save_bmp(libsnbf* handle, uint32_t minor, uint32_t type) {
  return send_sel(handle, SNBF_SAVE_BMP, minor, type);
}

int libsnbf_clr_bmp(libsnbf* handle, uint32_t minor, uint32_t type) {
  return send_sel(handle, SNBF_CLR_BMP, minor, type);
}

int libsnbf_set_bmp(libsnbf* handle, uint32_t minor, uint32_t type, const void* bits,
                    uint32_t size_bytes) {
  return send_bits(handle, SNBF_SET_BMP, minor, type, bits, size_bytes);
}

int libsnbf_merge_bmp(libsnbf* handle, uint32_t minor, uint32_t type, const void* bits,
                      uint32_t size_bytes) {
  return send_bits(handle, SNBF_MERGE_BMP, minor, type, bits, size_bytes);
}

int libsnbf_get_bmp(libsnbf* handle, uint32_t minor, uint32_t type, void* bits,
                    uint32_t size_bytes) {
  return send_bits(handle, SNBF_GET_BMP, minor, type, bits, size_bytes);
}

int libsnbf_get_and_clr_bmp(libsnbf* handle, uint32_t minor, uint32_t type, void* bits,
                            uint32_t size_bytes) {
  return send_bits(handle, SNBF_GET_AND_CLR_BMP, minor, type, bits, size_bytes);
}

int libsnbf_get_datablock_bmp(libsnbf* handle, uint32_t minor, uint32_t extent_size, void* bits,
                              uint32_t capacity_bytes, uint32_t* size_bytes) {
  snbf_datablock_cmd record{minor, extent_size, capacity_bytes, 0,
                            reinterpret_cast<uintptr_t>(bits)};
  if (int rc = send(handle, SNBF_GET_DATABLOCK_BMP, &record); rc != 0) return rc;
  *size_bytes = record.size;
  return 0;
}

int libsnbf_test_datablock(libsnbf* handle, const char* path) {
  return snbf::lib::at_border([&] {
    snbf_datablock_test record{};
    if (!snbf::lib::put_text(record.path, path)) return -ENAMETOOLONG;
    return send(handle, SNBF_TEST_DATABLOCK, &record);
  });
}

int libsnbf_resume_snap(libsnbf* handle, const snbf_resume_cmd* record) {
  HostLock lock(*handle);
  return lock.error() ? lock.error() : snbf::lib::resume_snap_locked(handle, *record);
}

int libsnbf_bmp_unsaved(libsnbf* handle, uint32_t minor, uint32_t type, int* unsaved) {
  return snbf::lib::at_border([&] {
    const std::string text =
        snbf::lib::read_line(handle->proc_root + "/snbf/snbf" + std::to_string(minor) +
                             (type == SNBF_BMP_INCR ? "/incr_bmp_dirty" : "/diff_bmp_dirty"));
    if (text.empty()) return -ENOENT;
    *unsaved = text != "0";
    return 0;
  });
}

}  // extern "C"
