#include "fsread/xfs_reader.h"

#include "reader_fuzz.h"

SNBF_FUZZ_READER(xfs_reader, 320 << 20, "mkfs.xfs -q -f -m crc=0 -b size=512 @", snbf::XfsReader)
