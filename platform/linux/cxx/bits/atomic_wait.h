/* SPDX-License-Identifier: GPL-2.0-only */
/* In place of <atomic>'s own, which waits with threads and futexes: here nothing waits on an atomic. */
