#include "fsread/reiserfs_reader.h"

#include "reader_fuzz.h"

SNBF_FUZZ_READER(reiserfs_reader, 100 << 20, "mkfs.reiserfs -q -f -b 1024 @", snbf::ReiserfsReader)
