#include "fsread/ext4_reader.h"
#include "fsread/extfs.h"
#include "reader_fuzz.h"

SNBF_FUZZ_READER(
    ext4_reader, Ext4Reader, 200 << 20,
    snbf::fuzz::make_base(200 << 20,
                          "mke2fs -q -F -t ext4 -b 1024 -C 8192 -J size=1 "
                          "-O bigalloc,meta_bg,^resize_inode,^metadata_csum,^uninit_bg @"),
    snbf::ext4_reader_claim)
