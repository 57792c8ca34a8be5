// SPDX-License-Identifier: GPL-2.0-only
#include "grammar.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

#include "command.h"

namespace snbf {

namespace {

struct Meaning {
  const char* name;  // of an option without its dashes, or of an argument
  const char* word;
  ValueKind kind;
};

constexpr Meaning kMeanings[] = {
    {"node", "NODE", ValueKind::Node},
    {"names", "NODE", ValueKind::Node},
    {"nodes", "NODE", ValueKind::Node},
    {"interval", "TIME", ValueKind::Any},
    {"count", "N", ValueKind::Number},
    {"store", "DEVICE", ValueKind::Device},
    {"nbd", "SOCKET", ValueKind::File},
    {"pid-file", "FILE", ValueKind::File},
    {"all", "NODE", ValueKind::Node},
    {"snap", "SNAP", ValueKind::Snap},
    {"snaps", "SNAP", ValueKind::Snap},
    {"partition", "PARTITION", ValueKind::Device},
    {"against", "DEVICE", ValueKind::Device},
    {"target", "TARGET", ValueKind::File},
    {"file", "FILE", ValueKind::File},
    {"output", "COLUMNS", ValueKind::Any},
    {"dest", "DEST", ValueKind::Directory},
    {"dir", "DIR", ValueKind::Directory},
    {"bitmaps", "DIR", ValueKind::Directory},
    {"cow", "DIR", ValueKind::Directory},
    {"extent", "SIZE", ValueKind::Size},
    {"chunk", "SIZE", ValueKind::Size},
    {"timeout", "TIME", ValueKind::Any},
    {"freeze-limit", "TIME", ValueKind::Any},
    {"hook-limit", "TIME", ValueKind::Any},
    {"pipe", "COMMAND", ValueKind::Any},
    {"before-freeze", "COMMAND", ValueKind::Any},
    {"after-thaw", "COMMAND", ValueKind::Any},
    {"keep-last", "N", ValueKind::Number},
    {"keep-daily", "N", ValueKind::Number},
    {"keep-weekly", "N", ValueKind::Number},
    {"keep-monthly", "N", ValueKind::Number},
    {"minor", "N", ValueKind::Number},
    {"name", "NAME", ValueKind::Any},
    {"instant", "NAME", ValueKind::Any},
    {"scratch", "DIR", ValueKind::Directory},
    {"root", "DEVICE", ValueKind::Device},
};

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  return text;
}

Meaning meaning_of(const std::string& name) {
  for (const Meaning& meaning : kMeanings) {
    if (name == meaning.name) return meaning;
  }
  return {"", "", ValueKind::Any};
}

// The parser shows the members of a set as "TYPE:{one,two}".
std::vector<std::string> choices_of(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const size_t open = type.find(":{");
  const size_t close = type.find('}', open);
  std::vector<std::string> choices;
  if (open == std::string::npos || close == std::string::npos) return choices;
  std::istringstream words(type.substr(open + 2, close - open - 2));
  for (std::string word; std::getline(words, word, ',');) choices.push_back(word);
  return choices;
}

std::string joined_with(const std::vector<std::string>& words, char between) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : std::string(1, between)) + word;
  return text;
}

Option option_of(const CLI::Option& from) {
  Option option;
  for (const std::string& name : from.get_snames()) option.names.push_back("-" + name);
  for (const std::string& name : from.get_lnames()) option.names.push_back("--" + name);
  option.text = from.get_description();
  option.required = from.get_required();
  if (from.get_items_expected_max() == 0) return option;
  option.choices = choices_of(from);
  if (from.get_type_name() == "FILE") {  // a verb may say so of a name that means something else
    option.kind = ValueKind::File;
    option.word = "FILE";
    return option;
  }
  const Meaning meaning = meaning_of(from.get_lnames().empty() ? "" : from.get_lnames().front());
  option.kind = option.choices.empty() ? meaning.kind : ValueKind::Choice;
  option.word = !option.choices.empty() ? joined_with(option.choices, '|')
                : meaning.word[0]       ? meaning.word
                                        : "VALUE";
  return option;
}

Argument argument_of(const CLI::Option& from) {
  Argument argument;
  argument.name = from.get_name(true, false);
  argument.choices = choices_of(from);
  argument.kind = argument.choices.empty() ? meaning_of(argument.name).kind : ValueKind::Choice;
  argument.text = from.get_description();
  argument.required = from.get_required();
  argument.many = from.get_expected_max() > 1;
  return argument;
}

// A footer is "Example:", indented command lines, and sentences.
void read_footer(const std::string& footer, Verb* verb) {
  std::istringstream lines(footer);
  bool goes_on = false;
  for (std::string line; std::getline(lines, line);) {
    const bool heading = line == "Example:" || line == "Examples:";
    if (line.empty() || heading) {
      goes_on = false;
    } else if (line[0] == ' ') {
      verb->examples.push_back(line.substr(line.find_first_not_of(' ')));
      goes_on = false;
    } else if (goes_on) {
      verb->paragraphs.back() += " " + line;
    } else {
      verb->paragraphs.push_back(line);
      goes_on = true;
    }
  }
}

}  // namespace

Verb grammar_of(const CLI::App& app, const std::string& name) {
  Verb verb;
  verb.name = name;
  verb.summary = app.get_description();
  read_footer(app.get_footer(), &verb);
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;  // hidden
    if (option->get_positional()) {
      verb.arguments.push_back(argument_of(*option));
    } else {
      verb.options.push_back(option_of(*option));
    }
  }
  for (const CLI::App* below : app.get_subcommands({})) {
    if (below->get_group().empty()) continue;
    verb.verbs.push_back(grammar_of(*below, (name.empty() ? "" : name + " ") + below->get_name()));
  }
  return verb;
}

Verb tool_grammar() {
  Chosen chosen;
  return grammar_of(*new_parser(chosen), "");
}

std::string synopsis_of(const Verb& verb) {
  std::string text = "snbf" + (verb.name.empty() ? "" : " " + verb.name);
  if (!verb.verbs.empty()) return text + " VERB [OPTIONS]";
  const auto value = [](const Option& option) { return option.names.back() + " " + option.word; };
  for (const Option& option : verb.options) {
    if (option.required) text += " " + value(option);
  }
  text += " [OPTIONS]";
  for (const Argument& argument : verb.arguments) {
    std::string word =
        argument.choices.empty() ? upper(argument.name) : joined_with(argument.choices, '|');
    if (argument.many) word += "...";
    text += argument.required ? " " + word : " [" + word + "]";
  }
  return text;
}

std::string wrapped(const std::string& text, size_t width, size_t indent) {
  std::istringstream words(text);
  std::string out;
  size_t column = indent;
  for (std::string word; words >> word;) {
    if (column > indent && column + 1 + word.size() > width) {
      out += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      out += " ";
      ++column;
    }
    out += word;
    column += word.size();
  }
  return out;
}

}  // namespace snbf
