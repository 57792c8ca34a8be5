// SPDX-License-Identifier: GPL-2.0-only
#include "completion.h"

#include <fmt/format.h>

namespace snbf {

namespace {

// What the script's _snbf_propose knows to propose.
std::string proposal(ValueKind kind, const std::vector<std::string>& choices) {
  switch (kind) {
    case ValueKind::Choice:
      return fmt::format("words {}", fmt::join(choices, " "));
    case ValueKind::Size:
      return "words 4K 16K 64K 256K 1M 4M";
    case ValueKind::Number:
    case ValueKind::Any:
      return "nothing";
    case ValueKind::Node:
      return "nodes";
    case ValueKind::Snap:
      return "snaps";
    case ValueKind::Directory:
      return "folders";
    case ValueKind::Device:
    case ValueKind::File:
      return "files";
  }
  return "nothing";
}

struct Tables {
  std::string words;      // after "VERB ": its own verbs, or its options
  std::string values;     // "VERB --option"
  std::string arguments;  // "VERB N", the last one for all that follow
};

void add_verb_to(const Verb& verb, Tables* tables) {
  std::vector<std::string> words;
  for (const Option& option : verb.options) {
    words.insert(words.end(), option.names.begin(), option.names.end());
    if (option.word.empty()) continue;
    for (const std::string& name : option.names) {
      tables->values += fmt::format("    '{} {}') echo '{}' ;;\n", verb.name, name,
                                    proposal(option.kind, option.choices));
    }
  }
  tables->words += fmt::format("    '{}') echo '{}' ;;\n", verb.name, fmt::join(words, " "));
  if (!verb.verbs.empty()) {
    std::vector<std::string> below;
    for (const Verb& one : verb.verbs) {
      below.push_back(one.name.substr(one.name.find_last_of(' ') + 1));
      add_verb_to(one, tables);
    }
    tables->arguments +=
        fmt::format("    '{} 0') echo 'words {}' ;;\n", verb.name, fmt::join(below, " "));
  }
  for (size_t i = 0; i < verb.arguments.size(); ++i) {
    const Argument& argument = verb.arguments[i];
    tables->arguments +=
        fmt::format("    '{} '{}) echo '{}' ;;\n", verb.name,
                    argument.many ? "*" : std::to_string(i),
                    proposal(argument.kind, argument.choices));
  }
}

constexpr const char* kHead = R"sh(# bash completion for snbf(1), as `snbf completion` prints it
# shellcheck shell=bash

)sh";

constexpr const char* kBody = R"sh(
_snbf_propose() { # KIND WORD...: what the shell shows for the word under the cursor
  local cur=$1 kind=$2
  shift 2
  case $kind in
    words) mapfile -t COMPREPLY < <(compgen -W "$*" -- "$cur") ;;
    nodes) mapfile -t COMPREPLY < <(compgen -W "$(snbf list -o name --noheadings 2>/dev/null)" -- "$cur") ;;
    snaps) mapfile -t COMPREPLY < <(compgen -W "$(snbf snap list --noheadings 2>/dev/null | cut -d' ' -f1)" -- "$cur") ;;
    folders) mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
    files) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
  esac
}

_snbf() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local verb='' kind i at=0
  COMPREPLY=()
  # Which verb it is, and how many of its arguments stand before the cursor.
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == -* ]]; then
      [ -z "$(_snbf_value "$verb ${COMP_WORDS[i]}")" ] || ((++i))
    elif [ -n "$(_snbf_options "${verb:+$verb }${COMP_WORDS[i]}")" ]; then
      verb=${verb:+$verb }${COMP_WORDS[i]} at=0
    else
      ((++at))
    fi
  done
  kind=$(_snbf_value "$verb $prev")
  if [ -z "$kind" ] && [[ $cur == -* ]]; then
    kind="words $(_snbf_options "$verb")"
  elif [ -z "$kind" ]; then
    kind=$(_snbf_argument "$verb $at")
  fi
  # shellcheck disable=SC2086 -- a kind and its words
  [ -z "$kind" ] || _snbf_propose "$cur" $kind
}

complete -o filenames -F _snbf snbf
)sh";

std::string table(const char* name, const std::string& entries) {
  return fmt::format("{}() {{\n  case $1 in\n{}  esac\n}}\n", name, entries);
}

}  // namespace

std::string bash_completion(const Verb& tool) {
  Tables tables;
  add_verb_to(tool, &tables);
  return kHead + table("_snbf_options", tables.words) + table("_snbf_value", tables.values) +
         table("_snbf_argument", tables.arguments) + kBody;
}

}  // namespace snbf
