// SPDX-License-Identifier: GPL-2.0-only
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "command.h"
#include "failure.h"

namespace snbf {

namespace {

constexpr Command kCommands[] = {
    {"attach", add_attach},     {"start", add_start},     {"stop", add_stop},
    {"detach", add_detach},     {"up", add_up},
    {"down", add_down},         {"list", add_list},       {"status", add_status},
    {"changes", add_changes},   {"bitmap", add_bitmap},   {"snap", add_snap},
    {"mount", add_mount},       {"umount", add_umount},   {"backup", add_backup},
    {"restore", add_restore},   {"verify", add_verify},   {"doctor", add_doctor},
    {"selftest", add_selftest}, {"version", add_version},
};

void tell(const Failure& failure) {
  fmt::print(stderr, "snbf: {}\n", failure.what());
  if (!failure.remedy().empty()) fmt::print(stderr, "      {}\n", failure.remedy());
}

int run_command_line(int argc, char** argv) {
  CLI::App app("Changed-block tracking, snaps and incremental backups of plain partitions", "snbf");
  app.require_subcommand(1);
  app.footer(exit_statuses() + "\n`snbf VERB --help` shows a verb's options and an example.");
  app.get_formatter()->column_width(28);
  Chosen chosen;
  for (const Command& command : commands()) command.add(app, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kMisused;
  }
  return chosen();
}

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace snbf

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a server that dies is an error of the call, not our end
  try {
    const int status = snbf::run_command_line(argc, argv);
    if (std::fflush(stdout) != 0) {
      fmt::print(stderr, "snbf: writing the output failed\n");
      return status == snbf::kDone ? snbf::kFailed : status;
    }
    return status;
  } catch (const snbf::Failure& failure) {
    std::fflush(stdout);
    snbf::tell(failure);
    return failure.status();
  } catch (const std::exception& error) {
    fmt::print(stderr, "snbf: {}\n", error.what());
    return snbf::kFailed;
  }
}
