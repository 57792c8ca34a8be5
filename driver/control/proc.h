// SPDX-License-Identifier: GPL-2.0-only
// The status tree /proc/snbf: three files of the driver, and one directory a node with one file a
// field.
//
// The kernel's entries are opaque, so the driver keeps its own tree of records: an entry's record
// is the context that the read and write procedures get, and they learn from its name and its
// parent's what is meant. Records are created and removed under lifecycle_mutex, at load and at
// unload; never under the table's lock, for a removal waits for readers, and they take it.
#pragma once

#include "block/node.h"

namespace snbf {

struct ByProcOrder;

struct ProcEntry : ListLink<ByProcOrder> {
  char name[32] = {};
  ProcEntry* parent = nullptr;
  List<ProcEntry, ByProcOrder> children;  // in the order of their creation
  plat_proc_entry* platform_entry = nullptr;
};

}  // namespace snbf

// /proc/snbf; null while there is none.
extern snbf::ProcEntry* snbf_dir;

// All of these may sleep. 0 or -EINVAL; on failure what was made so far stays.
int snbf_create_proc();
// Also takes away what a failed creation left. 0.
int snbf_remove_proc();
// 0 or -EINVAL, with nothing left behind.
int snbf_proc_add_device(snbf::Node& node);
// 0, whether there was a directory or not.
int snbf_proc_del_device(snbf::Node& node);
// The entry and all below it. Null is allowed.
void snbf_remove_proc_entry(snbf::ProcEntry* entry);
