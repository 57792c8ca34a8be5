// SPDX-License-Identifier: GPL-2.0-only
/*
 * The /proc tree over the legacy read and write procedures: each read asks for the whole text and
 * serves the caller's part of it.
 */
#include <linux/fs.h>
#include <linux/gfp.h>
#include <linux/module.h>
#include <linux/proc_fs.h>

#include "platform/control.h"
#include "platform/entry.h"

/* An open file keeps the module. */
static int entry_open(struct inode* inode, struct file* file) {
  return try_module_get(THIS_MODULE) ? 0 : -ENXIO;
}

static int entry_release(struct inode* inode, struct file* file) {
  module_put(THIS_MODULE);
  return 0;
}

static ssize_t entry_read(struct file* file, char __user* to, size_t bytes, loff_t* position) {
  char* page = (char*)get_zeroed_page(GFP_KERNEL);
  char* start = NULL;
  int eof = 0;
  ssize_t served;
  int length;

  if (!page) return -ENOMEM;
  length = snbf_read_proc(page, &start, *position, min_t(size_t, bytes, PAGE_SIZE), &eof,
                          pde_data(file_inode(file)));
  served = length < 0 ? length : simple_read_from_buffer(to, bytes, position, page, length);
  free_page((unsigned long)page);
  return served;
}

static ssize_t entry_write(struct file* file, const char __user* from, size_t bytes,
                           loff_t* position) {
  const int taken = snbf_write_proc(file, (unsigned long)from, bytes, pde_data(file_inode(file)));

  if (taken > 0) *position += taken;
  return taken;
}

static const struct proc_ops read_only_operations = {
    .proc_open = entry_open,
    .proc_release = entry_release,
    .proc_read = entry_read,
    .proc_lseek = default_llseek,
};

static const struct proc_ops writable_operations = {
    .proc_open = entry_open,
    .proc_release = entry_release,
    .proc_read = entry_read,
    .proc_write = entry_write,
    .proc_lseek = default_llseek,
};

plat_proc_entry* snbf_plat_proc_mkdir(const char* name, plat_proc_entry* parent) {
  return (plat_proc_entry*)proc_mkdir(name, (struct proc_dir_entry*)parent);
}

plat_proc_entry* snbf_plat_proc_create(const char* name, int mode, plat_proc_entry* parent,
                                       int writable, void* context) {
  return (plat_proc_entry*)proc_create_data(name, S_IFREG | mode, (struct proc_dir_entry*)parent,
                                            writable ? &writable_operations : &read_only_operations,
                                            context);
}

void snbf_plat_proc_remove(plat_proc_entry* entry) { proc_remove((struct proc_dir_entry*)entry); }
