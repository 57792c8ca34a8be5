/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The vocabulary of the platform contract: fixed-width types, opaque objects and storage for
 * objects that the driver embeds. Compiles as C and as C++, with no header of a kernel or a libc.
 */
#ifndef SNBF_PLATFORM_TYPES_H
#define SNBF_PLATFORM_TYPES_H

#ifdef __cplusplus
#define PLAT_BEGIN_DECLS extern "C" {
#define PLAT_END_DECLS }
#else
#define PLAT_BEGIN_DECLS
#define PLAT_END_DECLS
#endif

typedef __UINT8_TYPE__ plat_u8;
typedef __UINT16_TYPE__ plat_u16;
typedef __UINT32_TYPE__ plat_u32;
typedef __UINT64_TYPE__ plat_u64;
typedef __INT64_TYPE__ plat_s64;
typedef __SIZE_TYPE__ plat_size;

/* A device number in the kernel's internal form: major << 20 | minor. */
typedef plat_u32 plat_devt;

/*
 * How an allocation may behave. Normal may sleep and start I/O; NoIo may sleep but starts no I/O;
 * Atomic never sleeps (interrupts, spin locks held, a thread that writes wait for).
 */
typedef enum plat_alloc_mode {
  PLAT_ALLOC_NORMAL = 0,
  PLAT_ALLOC_NOIO = 1,
  PLAT_ALLOC_ATOMIC = 2,
} plat_alloc_mode;

/* Objects of the platform. The driver only holds pointers to them. */
typedef struct plat_task plat_task;
typedef struct plat_bio plat_bio;
typedef struct plat_bdev plat_bdev;
typedef struct plat_disk plat_disk;
typedef struct plat_file plat_file;
typedef struct plat_path plat_path;
typedef struct plat_cache plat_cache;
typedef struct plat_pool plat_pool;
typedef struct plat_proc_entry plat_proc_entry;
typedef struct plat_user_pin plat_user_pin;

/*
 * Storage that the driver embeds and the platform fills. Each platform asserts at compile time
 * that its own object fits. Zero-filled storage is not initialised: call the _init function.
 * The sizes leave room for a kernel built with lock debugging.
 */
typedef struct plat_spin { plat_u64 opaque[12]; } plat_spin;
typedef struct plat_semaphore { plat_u64 opaque[18]; } plat_semaphore;
typedef struct plat_waitq { plat_u64 opaque[16]; } plat_waitq;
typedef struct plat_wait_entry { plat_u64 opaque[8]; } plat_wait_entry;
typedef struct plat_completion { plat_u64 opaque[20]; } plat_completion;

#endif
