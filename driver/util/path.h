// SPDX-License-Identifier: GPL-2.0-only
// Names: device files made and removed, and where a path lives. Absolute paths; everything may
// sleep.
#pragma once

#include "base/result.h"
#include "platform/file.h"

// Makes a device file with permissions 0600. 0 or the negative error of the step that failed; a
// name that exists is such a failure.
int snbf_mknod(const char* path, int block, int major, int minor);
// 0 or a negative error; -ENOENT, for a name that is gone, without a log line.
int snbf_unlink(const char* path);
// 0 and a reference for snbf_plat_path_put; `found` is null when the name has no inode; or a
// negative error. `follow` follows a final symbolic link.
int snbf_get_file_dentry(const char* path, int follow, plat_path** found);
// The block device under the file system that holds the path or its nearest ancestor that exists; 0
// if there is none.
plat_devt snbf_get_file_devt(const char* path);

namespace snbf {

// The number of the file system that holds the path or its nearest ancestor that exists, behind symbolic links; 0 if
// that cannot be told.
plat_devt find_file_system(const char* path);

// The device number of the block device file that a command names, or a negative error; logged for
// the command `origin`. Follows a final symbolic link.
Result<plat_devt> find_hdd(const char* origin, const char* path);

}  // namespace snbf
