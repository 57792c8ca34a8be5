// SPDX-License-Identifier: GPL-2.0-only
// The command line as data: what help, completion and manual pages are made of, so that none of
// them can tell another story than the parser.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace snbf {

// What stands for a value, and what a shell can propose for it.
enum class ValueKind {
  Any,
  Choice,
  Size,
  Number,
  Node,
  Snap,
  Device,
  Directory,
  File,
};

struct Option {
  std::vector<std::string> names;  // "-o", "--output"
  std::string word;                // of its value, "SIZE"; empty: a flag
  ValueKind kind = ValueKind::Any;
  std::vector<std::string> choices;
  std::string text;
  bool required = false;
};

struct Argument {
  std::string name;
  ValueKind kind = ValueKind::Any;
  std::vector<std::string> choices;
  std::string text;
  bool required = false;
  bool many = false;
};

struct Verb {
  std::string name;  // "snap create": with the verb that it belongs to
  std::string summary;
  std::vector<std::string> examples;    // command lines
  std::vector<std::string> paragraphs;  // unwrapped
  std::vector<Option> options;
  std::vector<Argument> arguments;
  std::vector<Verb> verbs;
};

// Of the whole tool, or of one verb; `name` as the reader types it.
Verb grammar_of(const CLI::App& app, const std::string& name);
// All of the tool's.
Verb tool_grammar();

// "snbf snap delete [OPTIONS] [SNAPS...]": what follows the verb stands in one line.
std::string synopsis_of(const Verb& verb);

// Lines of at most `width` columns; the second and later ones begin with `indent` blanks.
std::string wrapped(const std::string& text, size_t width, size_t indent);

}  // namespace snbf
