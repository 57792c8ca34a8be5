// SPDX-License-Identifier: GPL-2.0-only
// The verbs that look and change nothing, for those who watch machines.
#pragma once

#include "command.h"

namespace snbf {

void add_metrics(CLI::App& app, Chosen& chosen);
void add_watch(CLI::App& app, Chosen& chosen);

}  // namespace snbf
