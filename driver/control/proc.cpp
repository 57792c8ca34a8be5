// SPDX-License-Identifier: GPL-2.0-only
#include "control/proc.h"

#include "base/errno.h"
#include "base/scope_exit.h"
#include "control/procfields.h"
#include "core/log.h"
#include "core/memory.h"
#include "core/params.h"
#include "platform/control.h"
#include "platform/log.h"

using snbf::kLogError;
using snbf::Node;
using snbf::ProcEntry;

constinit ProcEntry* snbf_dir = nullptr;

namespace snbf {

namespace {

constexpr int kReadOnly = 0444;
constexpr int kWritable = 0644;
constexpr char kNodePrefix[] = "snbf";
constexpr size_t kNodePrefixLength = sizeof(kNodePrefix) - 1;
constexpr size_t kWriteBytes = 1024;

// A record that is not in the tree yet.
ProcEntry* new_entry(const char* name, ProcEntry* parent) {
  ProcEntry* entry = heap_new<ProcEntry>(PLAT_ALLOC_NORMAL);
  if (entry == nullptr) return nullptr;
  text_copy(entry->name, sizeof(entry->name), name);
  entry->parent = parent;
  return entry;
}

ProcEntry* enter(ProcEntry* entry, plat_proc_entry* platform_entry) {
  if (platform_entry == nullptr) {
    snbf_plat_heap_free(entry);
    return nullptr;
  }
  entry->platform_entry = platform_entry;
  if (entry->parent != nullptr) entry->parent->children.push_back(entry);
  return entry;
}

ProcEntry* make_directory(const char* name, ProcEntry* parent) {
  ProcEntry* entry = new_entry(name, parent);
  if (entry == nullptr) return nullptr;
  return enter(entry,
               snbf_plat_proc_mkdir(name, parent == nullptr ? nullptr : parent->platform_entry));
}

ProcEntry* make_file(const char* name, int mode, ProcEntry* parent) {
  ProcEntry* entry = new_entry(name, parent);
  if (entry == nullptr) return nullptr;
  // Readers may come as soon as it is there: they only look at the names of the record and its
  // parent.
  return enter(entry,
               snbf_plat_proc_create(name, mode, parent->platform_entry, mode == kWritable, entry));
}

void node_directory_name(char (&name)[sizeof(ProcEntry::name)], u32 minor) {
  snbf_plat_snprintf(name, sizeof(name), "%s%d", kNodePrefix, static_cast<int>(minor));
}

void show_parameter(ProcText& out, const char* name) {
  if (text_equal(name, "chr_major")) {
    out.number(snbf_chr_major);
  } else if (text_equal(name, "blk_major")) {
    out.number(snbf_blk_major);
  } else if (text_equal(name, "debug")) {
    out.number(snbf_debug);
  }
}

// The minor that a directory name stands for, or -1.
long minor_of_directory(const char* name) {
  if (text_length(name) <= kNodePrefixLength) return -1;
  if (mem_compare(name, kNodePrefix, kNodePrefixLength) != 0) return -1;
  const char* digits = name + kNodePrefixLength;
  if (*digits < '0' || *digits > '9') return -1;
  const long minor = text_to_long(digits, nullptr);
  return minor <= snbf_max_blk_minor ? minor : -1;
}

// Nothing at all for a node or a field that is not there.
void show_node_field(ProcText& out, const char* directory, const char* name) {
  const long minor = minor_of_directory(directory);
  if (minor < 0) return;
  KsReadGuard table{snbf_blkdev_rwlock};
  Node* node = find_node(static_cast<u32>(minor));
  if (node == nullptr) return;
  for (const ProcField& field : proc_fields(*node)) {
    if (!text_equal(field.name, name)) continue;
    field.show(out, *node);
    return;
  }
}

int set_debug_level(const char* text) {
  const char* end = nullptr;
  const long value = text_to_long(text, &end);
  if (*end != '\0' && *end != ' ' && *end != '\n') return -EINVAL;
  snbf_debug = static_cast<int>(value);
  snbf_log(2, "%s(): snbf_debug=%d", "snbf_write_proc", snbf_debug);
  return 0;
}

}  // namespace

}  // namespace snbf

int snbf_create_proc() {
  constexpr const char* kOrigin = "snbf_create_proc";
  snbf_log(2, "%s(): Creating /proc/snbf filesystem", kOrigin);
  snbf_dir = snbf::make_directory("snbf", nullptr);
  if (snbf_dir == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create /proc/snbf directory.", kOrigin);
    return -EINVAL;
  }
  if (snbf::make_file("chr_major", snbf::kReadOnly, snbf_dir) == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create /proc/snbf/chr_major.", kOrigin);
    return -EINVAL;
  }
  if (snbf::make_file("blk_major", snbf::kReadOnly, snbf_dir) == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create /proc/snbf/blk_major.", kOrigin);
    return -EINVAL;
  }
  if (snbf::make_file("debug", snbf::kWritable, snbf_dir) == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create /proc/snbf/debug.", kOrigin);
    return -EINVAL;
  }
  return 0;
}

int snbf_remove_proc() {
  snbf_log(1, "%s(): Removing /proc/snbf tree.", "snbf_remove_proc");
  snbf_remove_proc_entry(snbf_dir);
  snbf_dir = nullptr;
  return 0;
}

int snbf_proc_add_device(Node& node) {
  constexpr const char* kOrigin = "snbf_proc_add_device";
  char name[sizeof(ProcEntry::name)];
  snbf::node_directory_name(name, node.minor);
  char path[sizeof("/proc/snbf/") + sizeof(name)];
  snbf_plat_snprintf(path, sizeof(path), "/proc/snbf/%s", name);
  snbf_log(2, "%s(): Creating %s entry for snbf(%d, %d)", kOrigin, path, snbf_blk_major,
           static_cast<int>(node.minor));

  ProcEntry* directory = snbf::make_directory(name, snbf_dir);
  if (directory == nullptr) {
    snbf_log(kLogError, "%s(): Failed to create %s directory.", kOrigin, path);
    return -EINVAL;
  }
  for (const snbf::ProcField& field : snbf::proc_fields(node)) {
    if (snbf::make_file(field.name, snbf::kReadOnly, directory) != nullptr) continue;
    snbf_log(kLogError, "%s(): Failed to create %s/%s.", kOrigin, path, field.name);
    snbf_remove_proc_entry(directory);
    return -EINVAL;
  }
  return 0;
}

int snbf_proc_del_device(Node& node) {
  snbf_log(2, "%s(): Removing /proc entry for snbf(%d, %d)", "snbf_proc_del_device", snbf_blk_major,
           static_cast<int>(node.minor));
  if (snbf_dir == nullptr) return 0;
  char name[sizeof(ProcEntry::name)];
  snbf::node_directory_name(name, node.minor);
  for (ProcEntry* child = snbf_dir->children.first(); child != nullptr;
       child = snbf::List<ProcEntry, snbf::ByProcOrder>::next(child)) {
    if (!snbf::text_equal(child->name, name)) continue;
    snbf_remove_proc_entry(child);
    break;
  }
  return 0;
}

void snbf_remove_proc_entry(ProcEntry* entry) {
  if (entry == nullptr) return;
  // The tree is three levels deep.
  while (ProcEntry* child = entry->children.first()) snbf_remove_proc_entry(child);
  snbf_log(2, "Removing %s...", entry->name);
  if (entry->parent != nullptr) entry->parent->children.remove(entry);
  snbf_plat_proc_remove(entry->platform_entry);
  // No reader is left that could look at the record.
  snbf_plat_heap_free(entry);
}

extern "C" int snbf_read_proc(char* page, char** start, plat_s64 offset, int count, int* eof,
                              void* data) {
  // The platform serves every read out of the whole text.
  (void)start;
  (void)offset;
  (void)count;
  if (page == nullptr || data == nullptr || eof == nullptr) return -EINVAL;
  const ProcEntry& entry = *static_cast<const ProcEntry*>(data);
  snbf::ProcText out{page};
  if (entry.parent != nullptr) {
    if (entry.parent->parent == nullptr) {
      snbf::show_parameter(out, entry.name);
    } else {
      snbf::show_node_field(out, entry.parent->name, entry.name);
    }
  }
  *eof = 1;
  snbf_log(2, "%s(): %s=%s", "snbf_read_proc", entry.name, page);
  return out.length();
}

extern "C" int snbf_write_proc(void* file, plat_u64 from_user, unsigned long count, void* data) {
  (void)file;
  constexpr const char* kOrigin = "snbf_write_proc";
  if (from_user == 0 || data == nullptr || count == 0) return -EINVAL;
  char* text = static_cast<char*>(snbf_plat_heap_alloc(snbf::kWriteBytes, PLAT_ALLOC_NORMAL));
  if (text == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -ENOMEM;
  }
  snbf::ScopeExit free_text{[text] { snbf_plat_heap_free(text); }};
  if (count - 1 >= snbf::kWriteBytes) return -EINVAL;
  if (snbf_plat_copy_from_user(text, from_user, count) != 0) return -EFAULT;
  // Kept: only the last byte of the buffer is terminated, not the one behind the copy. A value
  // brings its own terminator, blank or newline, or the bytes behind it decide.
  text[snbf::kWriteBytes - 1] = '\0';
  const ProcEntry& entry = *static_cast<const ProcEntry*>(data);
  if (snbf::text_equal(entry.name, "debug")) {
    if (int rc = snbf::set_debug_level(text); rc != 0) return rc;
  }
  return static_cast<int>(count);
}
