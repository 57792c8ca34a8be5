/* SPDX-License-Identifier: GPL-2.0-only */
/* In place of the C library's: the freestanding C++ headers ask for it, and there is no C library. */
#ifndef SNBF_LINUX_CXX_FEATURES_H
#define SNBF_LINUX_CXX_FEATURES_H

#define __GLIBC_PREREQ(major, minor) 0

#endif
