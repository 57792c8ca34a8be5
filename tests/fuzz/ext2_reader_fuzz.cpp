#include "fsread/ext2_reader.h"

#include "reader_fuzz.h"

SNBF_FUZZ_READER(ext2_reader, Ext2Reader, 40 << 20,
                 snbf::fuzz::make_base(40 << 20, "mke2fs -q -F -t ext2 -b 1024 @"))
