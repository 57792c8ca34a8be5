// SPDX-License-Identifier: GPL-2.0-only
// Why a backup is full, and why a snap is dead: codes that stay, and the sentences that people read.
#pragma once

#include <string>

namespace snbf {

inline constexpr const char* kWhyAsked = "asked-for";
inline constexpr const char* kWhyFirst = "no-earlier-backup";
inline constexpr const char* kWhyChain = "chain-broken";
inline constexpr const char* kWhyOtherChain = "other-destination";
inline constexpr const char* kWhySize = "size-changed";
inline constexpr const char* kWhyExtent = "extent-size-changed";
inline constexpr const char* kWhyByHand = "bitmap-changed-by-hand";
inline constexpr const char* kWhyCrash = "capture-interrupted";

// A code that is not known (of a later version) is its own text.
std::string reason_text(const std::string& code);

}  // namespace snbf
