// SPDX-License-Identifier: GPL-2.0-only
// The records of snaps, for the library's own files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "handle.h"

namespace snbf::lib {

// Of one filter node, oldest first. Those that cannot be read are left out.
std::vector<libsnbf_snap_record> snap_records(const std::string& bmp_dir, const char* node_uuid);

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

int hash_bitmaps(libsnbf* handle, const snbf_info& filter, uint64_t* out);

}  // namespace snbf::lib
