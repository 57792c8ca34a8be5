// SPDX-License-Identifier: GPL-2.0-only
// snbf completion: what makes a shell complete the other verbs.
#include "completion.h"

#include <fmt/format.h>

#include "command.h"
#include "failure.h"

namespace snbf {

namespace {

struct Options {
  std::string shell = "bash";
};

int completion(const Options&) {
  fmt::print("{}", bash_completion(tool_grammar()));
  return kDone;
}

}  // namespace

void add_completion(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add_verb(app, chosen, "completion", "Print the shell completion",
               "Example:\n  snbf completion > /etc/bash_completion.d/snbf\n"
               "The packages bring it along: it is of use where the tool was copied by hand.",
               options, completion);
  verb->add_option("shell", options->shell, "bash")->check(CLI::IsMember({"bash"}));
}

}  // namespace snbf
