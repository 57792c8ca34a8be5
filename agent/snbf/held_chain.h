// SPDX-License-Identifier: GPL-2.0-only
// A chain that an instant restore stands on: a file in it says so, for longer than the tool lives, and over a power
// cut. While it is there nothing is pruned.
#pragma once

#include <string>
#include <vector>

namespace snbf {

// Durable when it returns; a chain that cannot be written needs none. Throws Failure.
void hold_chain(const std::string& destination, const std::string& name);
// No error if it was not held.
void release_chain(const std::string& destination, const std::string& name);
// The names of the restores, sorted.
std::vector<std::string> holders_of_chain(const std::string& destination);
// The file, which somebody who gives a restore up has to remove.
std::string hold_file(const std::string& destination, const std::string& name);

}  // namespace snbf
