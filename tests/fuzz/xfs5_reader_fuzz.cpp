#include "fsread/xfs5_reader.h"

#include "reader_fuzz.h"

// Version 4, which has no checksums that would turn every damage away at once.
SNBF_FUZZ_READER(xfs5_reader, 320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @", snbf::Xfs5Reader)
