// SPDX-License-Identifier: GPL-2.0-only
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>

#include "command.h"
#include "failure.h"
#include "misuse.h"

namespace snbf {

namespace {

Failure output_failure(int error) {
  if (error == EPIPE) {
    return {kFailed, "the output was closed before all of it was written",
            "read it to its end; what was done before stays done"};
  }
  return failure_of(-error, "writing the output");
}

int run_command_line(int argc, char** argv) {
  Chosen chosen;
  const auto app = new_parser(chosen);
  try {
    app->parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app->exit(success);
  } catch (const CLI::ParseError& error) {
    throw misuse_of(*app, {argv + 1, argv + argc}, error);
  }
  return chosen();
}

}  // namespace

}  // namespace snbf

int main(int argc, char** argv) {
  const bool json =
      std::any_of(argv, argv + argc, [](const std::string& word) { return word == "--json"; });
  std::signal(SIGCHLD, SIG_DFL);  // ignored by whoever started us, no program would have a status
  std::signal(SIGPIPE, SIG_IGN);  // a server that dies is an error of the call, not our end
  try {
    const int status = snbf::run_command_line(argc, argv);
    if (std::fflush(stdout) == 0) return status;
    snbf::tell(snbf::output_failure(errno), false);
    return status == snbf::kDone ? snbf::kFailed : status;
  } catch (const snbf::Failure& failure) {
    snbf::tell(failure, json);
    std::fflush(stdout);
    return failure.status();
  } catch (const std::filesystem::filesystem_error& error) {
    snbf::tell(snbf::failure_of(-error.code().value(), error.path1()), json);
    return snbf::kFailed;
  } catch (const std::system_error& error) {  // of fmt: the output
    snbf::tell(snbf::output_failure(error.code().value()), false);
    return snbf::kFailed;
  } catch (const std::exception& error) {
    snbf::tell(snbf::Failure(snbf::kFailed, error.what()), json);
    return snbf::kFailed;
  }
}
