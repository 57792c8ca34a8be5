// SPDX-License-Identifier: GPL-2.0-only
/* The control device: a character device, and its file through the kernel's own /dev. */
#include "platform/control.h"

#include <linux/device.h>
#include <linux/fs.h>
#include <linux/module.h>

#include "compat.h"
#include "module.h"
#include "platform/entry.h"

/* The "!" becomes a "/": the file's folder is also that of the node files. */
#define CONTROL_FILE "snbf!control"

static struct class* control_class;
static bool published;

static int control_open(struct inode* inode, struct file* file) {
  return snbf_char_open(inode, file);
}

static int control_release(struct inode* inode, struct file* file) {
  return snbf_char_release(inode, file);
}

static ssize_t control_read(struct file* file, char __user* to, size_t bytes, loff_t* position) {
  return snbf_char_read(file, (unsigned long)to, bytes, (plat_s64*)position);
}

static ssize_t control_write(struct file* file, const char __user* from, size_t bytes,
                             loff_t* position) {
  return snbf_char_write(file, (unsigned long)from, bytes, (plat_s64*)position);
}

static long control_ioctl(struct file* file, unsigned int cmd, unsigned long arg) {
  return snbf_char_ioctl(file_inode(file), file, cmd, arg);
}

static const struct file_operations control_operations = {
    .owner = THIS_MODULE,
    .open = control_open,
    .release = control_release,
    .read = control_read,
    .write = control_write,
    .unlocked_ioctl = control_ioctl,
};

static char* control_file_mode(snbf_devnode_device* device, umode_t* mode) {
  if (mode) *mode = 0600;
  return NULL;
}

static int control_class_create(const char* name) {
  control_class = snbf_class_create(name);
  if (IS_ERR(control_class)) return PTR_ERR(control_class);
  control_class->devnode = control_file_mode;
  return 0;
}

int snbf_control_publish(void) {
  struct device* device = device_create(control_class, NULL, MKDEV(snbf_chr_major, 0), NULL, CONTROL_FILE);

  published = !IS_ERR(device);
  return published ? 0 : PTR_ERR(device);
}

int snbf_plat_chrdev_register(int major, const char* name) {
  const int granted = register_chrdev(major, name, &control_operations);
  int rc;

  if (granted < 0) return granted;
  rc = control_class_create(name);
  if (rc == 0) return granted;
  unregister_chrdev(major != 0 ? major : granted, name);
  return rc;
}

void snbf_plat_chrdev_unregister(int major, const char* name) {
  if (published) device_destroy(control_class, MKDEV(major, 0));
  published = false;
  class_destroy(control_class);
  unregister_chrdev(major, name);
}
