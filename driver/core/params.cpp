// SPDX-License-Identifier: GPL-2.0-only
#include "core/params.h"

extern "C" {

constinit int snbf_chr_major = 100;
constinit int snbf_debug = 1;
constinit int snbf_max_blk_minor = 255;
constinit int snbf_blk_major = 100;
}
