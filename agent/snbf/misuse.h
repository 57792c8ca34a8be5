// SPDX-License-Identifier: GPL-2.0-only
// What is wrong with a command line, in one sentence, and how it is put right.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "failure.h"

namespace snbf {

// `words`: what was typed behind the program's name, as `app` refused it. Of status kMisused.
Failure misuse_of(const CLI::App& app, const std::vector<std::string>& words,
                  const CLI::ParseError& error);

// The candidate that was probably meant, or empty.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates);

// As a terminal may be given it: control characters become \xNN, but for the ends of lines.
std::string printable(const std::string& text);

// The failure to stderr, and with `json` an object of error, fix and status to stdout as well.
void tell(const Failure& failure, bool json);

}  // namespace snbf
