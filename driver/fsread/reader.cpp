// SPDX-License-Identifier: GPL-2.0-only
#include "fsread/reader.h"

#include "base/errno.h"
#include "core/log.h"
#include "fsread/ext2_reader.h"
#include "fsread/ext4_reader.h"
#include "fsread/extfs.h"
#include "fsread/reiserfs_claim.h"
#include "fsread/reiserfs_reader.h"
#include "fsread/xfs5_reader.h"
#include "fsread/xfs_reader.h"

namespace snbf {

namespace {

// One kind of file system: its plain reader, and in front of it a claim, which
// is binding, with the reader of what it claims for itself.
struct Kind {
  Claim (*claim)(plat_bdev* bdev);
  FsReader own;
  FsReader plain;
};
constexpr Kind kKinds[] = {
    {ext4_reader_claim,
     reader_of<Ext4Reader, ext4_reader_init, ext4_reader_read, ext4_reader_destroy>(false),
     reader_of<Ext2Reader, ext2_reader_init, ext2_reader_read, ext2_reader_destroy>(false)},
    {reiserfs_claim,
     {},
     reader_of<ReiserfsReader, reiserfs_reader_init, reiserfs_reader_read, reiserfs_reader_destroy>(
         false)},
    {xfs5_reader_claim,
     reader_of<Xfs5Reader, xfs5_reader_init, xfs5_reader_read, xfs5_reader_destroy>(false),
     reader_of<XfsReader, xfs_reader_init, xfs_reader_read, xfs_reader_destroy>(true)},
};

}  // namespace

OpenReader::OpenReader(plat_bdev* bdev, u32* block_size) {
  for (const Kind& kind : kKinds) {
    const Claim claim = kind.claim(bdev);
    if (claim == Claim::Nobodys) return;
    reader_ = claim == Claim::Mine ? &kind.own : &kind.plain;
    handle_ = reader_->init(bdev, block_size);
    if (handle_ != nullptr || claim == Claim::Mine) return;
  }
}

OpenReader::~OpenReader() {
  if (handle_ != nullptr) reader_->destroy(handle_);
}

int check_reader_chunks(const char* origin, u32 chunk_size, u32 block_size) {
  if (!is_chunk_size(chunk_size)) {
    snbf_log(kLogError, "%s(): Chunk size (%d) must be a power of 2.", origin,
             static_cast<int>(chunk_size));
    return -EINVAL;
  }
  if (chunk_size < block_size) {
    snbf_log(kLogError, "%s(): Chunk size (%d) is smaller than FS block size (%d).", origin,
             static_cast<int>(chunk_size), static_cast<int>(block_size));
    return -EINVAL;
  }
  return 0;
}

}  // namespace snbf
