// SPDX-License-Identifier: GPL-2.0-only
// The manual pages: each from its source in docs/man, filled in with what the tool itself knows.
#pragma once

#include <string>

#include "grammar.h"

namespace snbf {

// A page's source for scdoc(5). Lines that are a mark alone are replaced:
//   @HEAD@    name, synopsis, and the sentences of the verb's help
//   @TAIL@    options, examples, exit statuses, where to look next
//   @VERBS@   all verbs with their summaries
//   @STATUS@  the exit statuses
// and @VERSION@ anywhere. `verb` is the page's; null for a page of no verb. Throws
// std::runtime_error at a mark that is unknown, or missing from a verb's page.
std::string fill_page(const std::string& source, const Verb& tool, const Verb* verb,
                      const std::string& version);

// The verb that a page "snbf-NAME.1.scd" is of; null: none.
const Verb* verb_of_page(const Verb& tool, const std::string& file_name);

}  // namespace snbf
