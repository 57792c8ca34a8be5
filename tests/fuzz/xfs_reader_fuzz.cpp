#include "fsread/xfs_reader.h"

#include "reader_fuzz.h"

SNBF_FUZZ_READER(xfs_reader, XfsReader, 320 << 20,
                 snbf::fuzz::make_base(320 << 20, "mkfs.xfs -q -f -m crc=0 -b size=512 @"))
