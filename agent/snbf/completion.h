// SPDX-License-Identifier: GPL-2.0-only
// The bash completion, made of the command line's grammar.
#pragma once

#include <string>

#include "grammar.h"

namespace snbf {

std::string bash_completion(const Verb& tool);

}  // namespace snbf
