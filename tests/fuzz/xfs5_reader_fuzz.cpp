#include "fsread/xfs5_reader.h"

#include "reader_fuzz.h"
#include "xfs_tree.h"

// Version 4, which has no checksums that would turn every damage away at once.
SNBF_FUZZ_READER(xfs5_reader, Xfs5Reader, 320 << 20,
                 snbf::fuzz::with_grown_tree(
                     snbf::fuzz::make_base(320 << 20, "mkfs.xfs -q -f -m crc=0 -s size=4096 @"),
                     16),
                 snbf::xfs5_reader_claim)
