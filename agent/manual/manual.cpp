// SPDX-License-Identifier: GPL-2.0-only
#include "manual.h"

#include <fmt/format.h>

#include <map>
#include <sstream>
#include <stdexcept>

#include "failure.h"

namespace snbf {

namespace {

// Text that means nothing to scdoc.
std::string plain(const std::string& text) {
  std::string out;
  for (const char c : text) {
    const bool special = std::string_view("\\*_`#[]|.-+!~<").find(c) != std::string_view::npos;
    out += (special ? "\\" : "") + std::string(1, c);
  }
  return out;
}

std::string bold(const std::string& text) { return "*" + plain(text) + "*"; }
std::string slanted(const std::string& text) { return "_" + plain(text) + "_"; }

std::string item(const std::string& head, const std::string& text) {
  return head + "\n\t" + plain(text) + "\n\n";
}

std::string option_head(const Option& option) {
  std::string head;
  for (const std::string& name : option.names) head += (head.empty() ? "" : ", ") + bold(name);
  if (option.word.empty()) return head;
  return head + " " + (option.choices.empty() ? slanted(option.word) : bold(option.word));
}

std::string synopses(const Verb& verb) {
  if (verb.verbs.empty()) return plain(synopsis_of(verb)) + "\n";
  std::string out;
  for (const Verb& below : verb.verbs) out += (out.empty() ? "" : "\n") + synopses(below);
  return out;
}

std::string prose(const Verb& verb) {
  std::string out;
  for (const std::string& text : verb.paragraphs) out += plain(text) + "\n\n";
  return out;
}

std::string options(const Verb& verb) {
  std::string out;
  for (const Argument& argument : verb.arguments) {
    out += item(slanted(argument.name), argument.text + ".");
  }
  for (const Option& option : verb.options) out += item(option_head(option), option.text + ".");
  return out;
}

std::string examples(const Verb& verb) {
  std::string out = "```\n";
  for (const std::string& line : verb.examples) out += line + "\n";
  return out + "```\n\n";
}

std::string lowered(std::string text) {
  if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z') text[0] += 'a' - 'A';
  return text;
}

std::string head(const Verb& verb) {
  return fmt::format("# NAME\n\nsnbf-{} - {}\n\n# SYNOPSIS\n\n{}\n# DESCRIPTION\n\n{}.\n\n{}",
                     verb.name, plain(lowered(verb.summary)), synopses(verb), plain(verb.summary),
                     prose(verb));
}

std::string statuses() {
  std::string out;
  for (const ExitMeaning& exit : exit_meanings()) {
    out += fmt::format("*{}*\n\t{}\n\n", static_cast<int>(exit.status), plain(exit.meaning));
  }
  return out;
}

std::string tail(const Verb& verb) {
  std::string out;
  for (const Verb& below : verb.verbs) {
    std::string title = below.name;
    for (char& c : title) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    out += fmt::format("# {}\n\n{}.\n\n{}{}Examples:\n\n{}", title, plain(below.summary),
                       prose(below), options(below), examples(below));
  }
  if (verb.verbs.empty()) {
    out += "# OPTIONS\n\n" + options(verb) + "# EXAMPLES\n\n" + examples(verb);
  }
  return out + "# EXIT STATUS\n\n" + statuses() + "# SEE ALSO\n\n*snbf*(1), *snbf*(4)\n";
}

std::string verbs(const Verb& tool) {
  std::string out;
  for (const Verb& verb : tool.verbs) {
    out += fmt::format("{}\n\t{}. See *snbf-{}*(1).\n\n", bold(verb.name), plain(verb.summary),
                       verb.name);
  }
  return out;
}

}  // namespace

std::string fill_page(const std::string& source, const Verb& tool, const Verb* verb,
                      const std::string& version) {
  std::map<std::string, std::string> marks = {{"@VERBS@", verbs(tool)}, {"@STATUS@", statuses()}};
  std::map<std::string, int> wanted;
  if (verb) {
    marks["@HEAD@"] = head(*verb);
    marks["@TAIL@"] = tail(*verb);
    wanted = {{"@HEAD@", 1}, {"@TAIL@", 1}};
  }
  std::string out;
  std::istringstream lines(source);
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find("@VERSION@"); at != std::string::npos) {
      line.replace(at, 9, version);
    }
    const bool mark = line.size() > 2 && line.front() == '@' && line.back() == '@';
    const auto known = marks.find(line);
    if (mark && known == marks.end()) throw std::runtime_error("there is no mark " + line);
    wanted.erase(line);
    out += mark ? known->second : line + "\n";
  }
  if (!wanted.empty()) throw std::runtime_error("the mark is missing: " + wanted.begin()->first);
  return out;
}

const Verb* verb_of_page(const Verb& tool, const std::string& file_name) {
  for (const Verb& verb : tool.verbs) {
    if (file_name == "snbf-" + verb.name + ".1.scd") return &verb;
  }
  return nullptr;
}

}  // namespace snbf
