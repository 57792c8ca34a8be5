// SPDX-License-Identifier: GPL-2.0-only
// The kernel's error numbers that the driver answers. Macros, as everywhere else in C, so that this
// header can meet a libc's in a test.
#pragma once

#ifndef EPERM
#define EPERM 1
#endif
#ifndef ENOENT
#define ENOENT 2
#endif
#ifndef ESRCH
#define ESRCH 3
#endif
#ifndef EIO
#define EIO 5
#endif
#ifndef ENXIO
#define ENXIO 6
#endif
#ifndef EAGAIN
#define EAGAIN 11
#endif
#ifndef ENOMEM
#define ENOMEM 12
#endif
#ifndef EFAULT
#define EFAULT 14
#endif
#ifndef EBUSY
#define EBUSY 16
#endif
#ifndef EEXIST
#define EEXIST 17
#endif
#ifndef EINVAL
#define EINVAL 22
#endif
#ifndef ENOTTY
#define ENOTTY 25
#endif
#ifndef ENOSPC
#define ENOSPC 28
#endif
#ifndef EROFS
#define EROFS 30
#endif
#ifndef EOPNOTSUPP
#define EOPNOTSUPP 95
#endif
#ifndef ETIMEDOUT
#define ETIMEDOUT 110
#endif
#ifndef EALREADY
#define EALREADY 114
#endif
