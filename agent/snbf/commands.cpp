// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"
#include "failure.h"
#include "help.h"
#include "looking.h"
#include "version.h"

namespace snbf {

namespace {

// clang-format off: one a line
constexpr Command kCommands[] = {
    {"attach", add_attach},
    {"start", add_start},
    {"stop", add_stop},
    {"detach", add_detach},
    {"up", add_up},
    {"down", add_down},
    {"list", add_list},
    {"status", add_status},
    {"changes", add_changes},
    {"bitmap", add_bitmap},
    {"snap", add_snap},
    {"mount", add_mount},
    {"umount", add_umount},
    {"export", add_export},
    {"backup", add_backup},
    {"prune", add_prune},
    {"restore", add_restore},
    {"verify", add_verify},
    {"doctor", add_doctor},
    {"selftest", add_selftest},
    {"metrics", add_metrics},
    {"watch", add_watch},
    {"completion", add_completion},
    {"version", add_version},
};
// clang-format on

}  // namespace

std::span<const Command> commands() { return kCommands; }

std::unique_ptr<CLI::App> new_parser(Chosen& chosen) {
  auto app = std::make_unique<CLI::App>(
      "Changed-block tracking, snaps and incremental backups of plain partitions", "snbf");
  app->require_subcommand(1);
  app->set_version_flag("--version", version_text, "Show the versions of the tool and the driver");
  app->footer(exit_statuses() +
              "\n\n`snbf VERB --help` shows a verb's options and examples, `man snbf-VERB` more.");
  app->formatter(std::make_shared<HelpFormatter>());
  for (const Command& command : commands()) command.add(*app, chosen);
  return app;
}

}  // namespace snbf
