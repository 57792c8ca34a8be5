#include "fsread/ext4_reader.h"

#include "fsread/extfs.h"
#include "reader_fuzz.h"

// Without checksums, which would turn every damage away at once.
SNBF_FUZZ_READER(
    ext4_reader, Ext4Reader, 60 << 20,
    snbf::fuzz::make_base(
        60 << 20, "mke2fs -q -F -t ext4 -b 1024 -g 2048 -J size=1 -O ^metadata_csum,^uninit_bg @"),
    snbf::ext4_reader_claim)
