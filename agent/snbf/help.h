// SPDX-License-Identifier: GPL-2.0-only
// The text of --help, for a terminal of 80 columns.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace snbf {

class HelpFormatter : public CLI::FormatterBase {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode) const override;
};

}  // namespace snbf
