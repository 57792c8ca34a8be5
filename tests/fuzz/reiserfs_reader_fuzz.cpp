#include "fsread/reiserfs_reader.h"

#include "fsread/reiserfs_claim.h"
#include "reader_fuzz.h"

SNBF_FUZZ_READER(reiserfs_reader, ReiserfsReader, 100 << 20,
                 snbf::fuzz::make_base(100 << 20, "mkfs.reiserfs -q -f -b 1024 @"),
                 snbf::reiserfs_claim)
