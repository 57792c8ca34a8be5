// SPDX-License-Identifier: GPL-2.0-only
// Metrics in the text format of Prometheus.
#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "version.h"

namespace snbf {

// `nodes` is empty where no driver is loaded. What is not known of a node or a snap has no sample.
std::string metrics_text(const std::string& tool, const LoadedDriver& driver,
                         const std::vector<NodeFacts>& nodes);

}  // namespace snbf
