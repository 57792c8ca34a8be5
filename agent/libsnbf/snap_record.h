// SPDX-License-Identifier: GPL-2.0-only
// The records of snaps, for the library's own files.
#pragma once

#include <compare>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "handle.h"

namespace snbf::lib {

// Of whatever nodes have their bitmaps there. A directory that is gone has none, and those that are
// damaged are left out; one that cannot be read is an error. `damaged`, which may be null: whether
// there were such. One cannot say whose it was: it may be of any snap of the directory's nodes.
int snap_records(const std::string& bmp_dir, std::vector<libsnbf_snap_record>* out,
                 bool* damaged = nullptr);
// Of one filter node, oldest first.
int snap_records(const std::string& bmp_dir, const char* node_uuid,
                 std::vector<libsnbf_snap_record>* out, bool* damaged = nullptr);

// A free minor for a snap, from the top: a low one may be what a filter node's bitmap files are
// named after.
std::optional<uint32_t> choose_snap_minor(const std::string& bmp_dir, const Nodes& nodes,
                                          uint32_t minor_max);

// All but the minor and the chunk size.
void fill_snap_node(const libsnbf_snap_record& record, uint32_t filter_minor,
                    snbf_snap_node_cmd* node);

int remove_snap_record(const std::string& bmp_dir, const std::string& name);

// The driver's view of a filter node's snaps, in the order of their creation.
int snap_infos(libsnbf* handle, const snbf_info& filter, std::vector<snbf_info>* out);

struct FileId {
  uint64_t dev;
  uint64_t ino;
  auto operator<=>(const FileId&) const = default;
};
// Of the file that the path leads to, if there is one.
std::optional<FileId> file_id(const char* path);

// The COW files of every snap that is known: the driver's, and those of the records in `extra_dir`
// and beside the bitmaps of all filter nodes.
int files_of_snaps(libsnbf* handle, const std::string& extra_dir, std::set<FileId>* out);

// Puts into the record by which its files are known again; `at_rest`: nothing writes to them any
// more.
int mark_files(libsnbf_snap_record* record, bool at_rest);
// Whether the file is the one that was marked, untouched since. What is not known fits.
bool fits_mark(const char* path, const libsnbf_file_mark& mark, bool same_boot);

int hash_bitmaps(libsnbf* handle, const snbf_info& filter, uint64_t* out);

}  // namespace snbf::lib
