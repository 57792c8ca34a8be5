// SPDX-License-Identifier: GPL-2.0-only
// Files from kernel context, through a handle with the calls of a buffered file.
//
// Every routine may sleep. None locks: a handle belongs to one caller at a time. Failures are
// logged by the routine that meets them.
#pragma once

#include "base/types.h"
#include "core/memory.h"
#include "platform/file.h"

// Owned by whoever opened it, until snbf_fclose.
struct snbf_file {
  char* name;  // copy of the path, for log lines
  plat_file* filp;
};

// Null when it could not be opened.
snbf_file* snbf_fopen(const char* path, int flags, int mode);
// Bytes read, fewer only at the end of the file (which is logged), or a negative error.
int snbf_fread(snbf_file* file, snbf::u64 position, void* to, int count);
// `count`, or a negative error; a write without progress is -EIO.
int snbf_fwrite(snbf_file* file, snbf::u64 position, const void* from, int count);
// The same from whole pages of memory: `count` bytes, 4096 of each page but perhaps the last.
int snbf_fwrite_pages(snbf_file* file, snbf::u64 position, void* const* pages, int count);
// Writes the pieces past the page cache, all in flight together; one that comes back short is
// finished through it. 0; or the error of one that failed, the others are written all the same; or,
// when none failed, -EINVAL: those with that result are not written, and the file hardly takes any
// this way.
int snbf_fwrite_direct(snbf_file* file, plat_direct_batch* batch, plat_file_piece* pieces,
                       int count);
// The kernel's answer; the handle is gone in any case.
int snbf_fclose(snbf_file* file);
// Empties a file that exists. Always 0.
int snbf_ftruncate(const char* path);
// 0 for a file that knows no sync.
int snbf_fsync(snbf_file* file);
