// SPDX-License-Identifier: GPL-2.0-only
/* The control device: a character device, and its file through the kernel's own /dev. */
#include "platform/control.h"

#include <linux/cdev.h>
#include <linux/device.h>
#include <linux/fs.h>
#include <linux/module.h>

#include "compat.h"
#include "module.h"
#include "platform/entry.h"

/* The "!" becomes a "/": the file's folder is also that of the node files. */
#define CONTROL_FILE "snbf!control"

/* Every minor of the major is the control device. */
#define CONTROL_MINORS 256

static struct class* control_class;
static struct cdev* control_cdev; /* null until it is published */

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

static int control_add(dev_t number) {
  struct cdev* added = cdev_alloc();
  int rc;

  if (!added) return -ENOMEM;
  added->owner = THIS_MODULE;
  added->ops = &control_operations;
  rc = cdev_add(added, number, CONTROL_MINORS);
  if (rc != 0) {
    kobject_put(&added->kobj);
    return rc;
  }
  control_cdev = added;
  return 0;
}

/* Whoever opens the file before its number is served is told that nobody is there. */
int snbf_control_publish(void) {
  const dev_t number = MKDEV(snbf_chr_major, 0);
  struct device* device = device_create(control_class, NULL, number, NULL, CONTROL_FILE);
  int rc;

  if (IS_ERR(device)) return PTR_ERR(device);
  rc = control_add(number);
  if (rc != 0) device_destroy(control_class, number);
  return rc;
}

static int numbers_register(int major, const char* name) {
  dev_t first;
  int rc;

  if (major < 0 || major >= CHRDEV_MAJOR_MAX) return -EINVAL;
  if (major > 0) return register_chrdev_region(MKDEV(major, 0), CONTROL_MINORS, name);
  rc = alloc_chrdev_region(&first, 0, CONTROL_MINORS, name);
  return rc == 0 ? MAJOR(first) : rc;
}

int snbf_plat_chrdev_register(int major, const char* name) {
  const int granted = numbers_register(major, name);
  int rc;

  if (granted < 0) return granted;
  rc = control_class_create(name);
  if (rc == 0) return granted;
  unregister_chrdev_region(MKDEV(major != 0 ? major : granted, 0), CONTROL_MINORS);
  return rc;
}

void snbf_plat_chrdev_unregister(int major, const char* name) {
  const dev_t number = MKDEV(major, 0);

  if (control_cdev) {
    cdev_del(control_cdev);
    device_destroy(control_class, number);
  }
  control_cdev = NULL;
  class_destroy(control_class);
  unregister_chrdev_region(number, CONTROL_MINORS);
}
