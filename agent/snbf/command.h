// SPDX-License-Identifier: GPL-2.0-only
// The table of verbs. A verb's usage, options and handler stand together in its file under verbs/.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <span>

namespace snbf {

// What the command line asks for: set by the chosen verb, run after the parse. Answers the exit
// status, or throws Failure.
using Chosen = std::function<int()>;

struct Command {
  const char* name;
  void (*add)(CLI::App& app, Chosen& chosen);
};

std::span<const Command> commands();

// The parser of the whole command line; `chosen` must outlive it.
std::unique_ptr<CLI::App> new_parser(Chosen& chosen);

// Gives `options` to the handler when the verb is the one asked for.
template <class Options>
CLI::App* add_verb(CLI::App& app, Chosen& chosen, const char* name, const char* summary,
                   const char* examples, std::shared_ptr<Options> options,
                   int (*handler)(const Options&)) {
  CLI::App* verb = app.add_subcommand(name, summary);
  verb->footer(examples);
  verb->callback(
      [&chosen, options, handler] { chosen = [options, handler] { return handler(*options); }; });
  return verb;
}

void add_attach(CLI::App& app, Chosen& chosen);
void add_start(CLI::App& app, Chosen& chosen);
void add_stop(CLI::App& app, Chosen& chosen);
void add_detach(CLI::App& app, Chosen& chosen);
void add_up(CLI::App& app, Chosen& chosen);
void add_down(CLI::App& app, Chosen& chosen);
void add_list(CLI::App& app, Chosen& chosen);
void add_status(CLI::App& app, Chosen& chosen);
void add_changes(CLI::App& app, Chosen& chosen);
void add_bitmap(CLI::App& app, Chosen& chosen);
void add_backup(CLI::App& app, Chosen& chosen);
void add_prune(CLI::App& app, Chosen& chosen);
void add_restore(CLI::App& app, Chosen& chosen);
void add_verify(CLI::App& app, Chosen& chosen);
void add_snap(CLI::App& app, Chosen& chosen);
void add_mount(CLI::App& app, Chosen& chosen);
void add_umount(CLI::App& app, Chosen& chosen);
void add_export(CLI::App& app, Chosen& chosen);
void add_doctor(CLI::App& app, Chosen& chosen);
void add_selftest(CLI::App& app, Chosen& chosen);
void add_completion(CLI::App& app, Chosen& chosen);
void add_version(CLI::App& app, Chosen& chosen);

}  // namespace snbf
