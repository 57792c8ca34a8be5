// SPDX-License-Identifier: GPL-2.0-only
// A disk behind any NBD server as a destination: see the head of store_nbd.cpp.
#pragma once

#include <memory>
#include <string>

#include "store.h"

namespace snbf {

bool is_nbd_uri(const std::string& text);

// Where its manifest lies, beside the node's bitmaps; by the node's name, which outlives its minor.
std::string nbd_folder(const snbf_info& node, const std::string& uri);

struct NbdLook {
  bool blank = false;  // zeros, wherever it was looked at
  bool ours = false;   // what it holds is the last point, or what we have made of that since
  std::string damage;  // why no increment can stand on it: a sentence, or empty
};
// What the target holds. `changed` is what the bitmap has now. Throws if it is too small.
// `manifest`: null if there is none.
NbdLook look_at_nbd(const std::string& uri, const Extents& changed, const Manifest* manifest);

std::unique_ptr<Store> nbd_store(const snbf_info& node, const std::string& uri,
                                 const std::string& folder, const Manifest& manifest);

}  // namespace snbf
