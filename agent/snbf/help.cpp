// SPDX-License-Identifier: GPL-2.0-only
#include "help.h"

#include <fmt/format.h>

#include "grammar.h"

namespace snbf {

namespace {

constexpr size_t kWidth = 80;
constexpr size_t kColumn = 26;  // where the explanations begin

std::string entry(const std::string& head, const std::string& text) {
  std::string out = "  " + head;
  if (out.size() + 2 > kColumn) {
    out += "\n" + std::string(kColumn, ' ');
  } else {
    out.resize(kColumn, ' ');
  }
  return out + wrapped(text, kWidth, kColumn) + "\n";
}

std::string option_head(const Option& option) {
  std::string head = fmt::format("{}", fmt::join(option.names, ", "));
  return option.word.empty() ? head : head + " " + option.word;
}

// The words before "snap create", as they were typed.
std::string path_of(const CLI::App* app) {
  std::string path;
  for (; app->get_parent() != nullptr; app = app->get_parent()) {
    path = app->get_name() + (path.empty() ? "" : " " + path);
  }
  return path;
}

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const {
  const Verb verb = grammar_of(*app, path_of(app));
  std::string out = wrapped(verb.summary, kWidth, 0) + "\n";
  out += "Usage: " + wrapped(synopsis_of(verb), kWidth, 7) + "\n";
  if (!verb.arguments.empty()) out += "\nArguments:\n";
  for (const Argument& argument : verb.arguments) out += entry(argument.name, argument.text);
  out += "\nOptions:\n";
  for (const Option& option : verb.options) {
    out += entry(option_head(option), option.text + (option.required ? " (required)" : ""));
  }
  if (!verb.verbs.empty()) out += "\nVerbs:\n";
  for (const Verb& below : verb.verbs) {
    out += entry(below.name.substr(below.name.find_last_of(' ') + 1), below.summary);
  }
  if (!verb.examples.empty()) out += verb.examples.size() == 1 ? "\nExample:\n" : "\nExamples:\n";
  for (const std::string& line : verb.examples) out += "  " + line + "\n";
  for (const std::string& text : verb.paragraphs) out += "\n" + wrapped(text, kWidth, 0) + "\n";
  return out;
}

}  // namespace snbf
