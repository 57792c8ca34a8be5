/* SPDX-License-Identifier: GPL-2.0-only */
/* The control device and the /proc tree. Everything here may sleep. */
#ifndef SNBF_PLATFORM_CONTROL_H
#define SNBF_PLATFORM_CONTROL_H

#include "platform/types.h"

PLAT_BEGIN_DECLS

/*
 * Registers the control character device; its file operations call snbf_char_*, from now on or, at the latest, when the
 * load has succeeded. Answers the major when 0 asked for a free one, 0 when the given one was granted, or a
 * negative error. The device file is made by the platform where user space expects it.
 */
int snbf_plat_chrdev_register(int major, const char* name);
void snbf_plat_chrdev_unregister(int major, const char* name);

/* Directory below `parent` (null: the root of /proc); null on failure. */
plat_proc_entry* snbf_plat_proc_mkdir(const char* name, plat_proc_entry* parent);
/*
 * File read through snbf_read_proc (and written through snbf_write_proc if `writable`) with `context` as its data; the
 * platform serves offset and count out of the whole text. Null on failure.
 */
plat_proc_entry* snbf_plat_proc_create(const char* name, int mode, plat_proc_entry* parent, int writable,
                                       void* context);
/* Removes one entry without children. Waits for readers inside snbf_read_proc: hold no lock that they take. */
void snbf_plat_proc_remove(plat_proc_entry* entry);

PLAT_END_DECLS
#endif
