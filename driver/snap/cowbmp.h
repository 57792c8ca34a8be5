// SPDX-License-Identifier: GPL-2.0-only
// The COW bitmap of a snap: one bit a chunk, set once the chunk's former contents are in the COW
// data file.
//
// In memory it is a table of 4096-byte pages, made as their first bit is set. Its file is the plain
// image of the bits, without a header, and follows byte by byte as bits are set. Every routine may
// sleep.
#pragma once

#include "block/kslock.h"
#include "util/file.h"

namespace snbf {

struct CowBitmap {
  // Over the table and its pages. Bits are set atomically, under the read side too; a page that is there stays
  // until the bitmap is destroyed or loaded anew, so that a bit can also be looked at without the lock.
  KsRwLock lock;
  u64 nbits = 0;
  int npages = 0;
  u8** pages = nullptr;  // null: not initialised. A null page: all its bits are 0
};

}  // namespace snbf

// Empty bitmap for that many chunks, at least one. 0 or -ENOMEM.
int snbf_cowbmp_init(snbf::CowBitmap* bitmap, snbf::u64 chunk_count);
// 1 or 0, or -EINVAL while uninitialised: any answer but 0 means already copied.
int snbf_cowbmp_test_bit(snbf::CowBitmap* bitmap, int bit);
// The same without the lock, for those who must not wait for a file: setting a bit writes one. The bitmap is neither
// destroyed nor loaded meanwhile. Any context.
bool snbf_cowbmp_is_set(const snbf::CowBitmap* bitmap, snbf::u64 bit);
// Sets a bit and, if that changed it, its byte in `file`. 0; -EIO when the file could not be
// written: the bit then stays set in memory.
int snbf_cowbmp_set_bit(snbf::CowBitmap* bitmap, int bit, snbf::AllocMode mode, snbf_file* file);
// Sets several, ascending or not, and writes the bytes that changed: those of one page in one
// piece, if they follow one another in `bits`. The file must hold what the bitmap does. 0, or the
// first error; the bits behind it may or may not be set.
int snbf_cowbmp_set_bits(snbf::CowBitmap* bitmap, const snbf::u32* bits, snbf::u32 count,
                         snbf::AllocMode mode, snbf_file* file);
// Writes all of it into the file.
int snbf_cowbmp_save(snbf::CowBitmap* bitmap, const char* path);
// Replaces it by the file's contents; on a failure after the file was opened it is left
// uninitialised.
int snbf_cowbmp_load(snbf::CowBitmap* bitmap, const char* path);
// Frees everything and clears the record. Always 0.
int snbf_cowbmp_destroy(snbf::CowBitmap* bitmap);
