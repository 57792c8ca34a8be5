// SPDX-License-Identifier: GPL-2.0-only
#include "misuse.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "output.h"

namespace snbf {

namespace {

// Insertions, deletions, exchanges, and two neighbours swapped count one each.
size_t distance(const std::string& one, const std::string& other) {
  std::vector<size_t> before;
  std::vector<size_t> above(other.size() + 1);
  std::iota(above.begin(), above.end(), size_t{0});
  for (size_t i = 1; i <= one.size(); ++i) {
    std::vector<size_t> row{i};
    for (size_t j = 1; j <= other.size(); ++j) {
      size_t least = std::min(above[j], row[j - 1]) + 1;
      least = std::min(least, above[j - 1] + (one[i - 1] != other[j - 1]));
      const bool swapped =
          i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1];
      if (swapped) least = std::min(least, before[j - 2] + 1);
      row.push_back(least);
    }
    before = std::move(above);
    above = std::move(row);
  }
  return above.back();
}

// The verb that the words reach, and the first word behind it that is no verb below it.
struct Reached {
  const CLI::App* verb;
  std::string typed;
  std::string next;
};

const CLI::App* below(const CLI::App& app, const std::string& name) {
  const auto found =
      app.get_subcommands([&name](const CLI::App* sub) { return sub->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

Reached reach(const CLI::App& app, const std::vector<std::string>& words) {
  Reached reached{&app, "snbf", ""};
  for (const std::string& word : words) {
    if (!word.empty() && word[0] == '-') continue;
    const CLI::App* sub = below(*reached.verb, word);
    if (!sub) {
      reached.next = word;
      break;
    }
    reached.verb = sub;
    reached.typed += " " + word;
  }
  return reached;
}

std::string hint(const std::string& meant, const std::string& rest) {
  return meant.empty() ? rest : fmt::format("did you mean \"{}\"? {}", meant, rest);
}

Failure about_verb(const Reached& reached) {
  std::vector<std::string> verbs;
  for (const CLI::App* sub : reached.verb->get_subcommands({})) {
    if (!sub->get_group().empty()) verbs.push_back(sub->get_name());  // else it is hidden
  }
  const std::string rest = fmt::format("`{} --help` lists the verbs", reached.typed);
  if (reached.next.empty()) return {kMisused, reached.typed + " needs a verb", rest};
  return {kMisused, fmt::format("{} has no verb \"{}\"", reached.typed, reached.next),
          hint(nearest(reached.next, verbs), rest)};
}

std::string unknown_option(const CLI::App& verb, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (word == "--") break;
    const std::string name = word.substr(0, word.find('='));
    if (name.size() > 1 && name[0] == '-' && !verb.get_option_no_throw(name)) return name;
  }
  return "";
}

std::vector<std::string> options_of(const CLI::App& verb) {
  std::vector<std::string> names;
  for (const CLI::Option* option : verb.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t least = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const bool begins =
        word.size() >= 3 &&
        (candidate.rfind(word, 0) == 0 || (candidate.size() >= 3 && word.rfind(candidate, 0) == 0));
    const size_t far = begins ? 1 : distance(word, candidate);
    if (far >= least) continue;
    least = far;
    best = candidate;
  }
  return best;
}

Failure misuse_of(const CLI::App& app, const std::vector<std::string>& words,
                  const CLI::ParseError& error) {
  const Reached reached = reach(app, words);
  if (!reached.verb->get_subcommands({}).empty()) return about_verb(reached);
  const std::string help = fmt::format("`{} --help` shows what it takes", reached.typed);
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) {
    const std::string option = unknown_option(*reached.verb, words);
    if (!option.empty()) {
      return {kMisused, fmt::format("{} has no option \"{}\"", reached.typed, option),
              hint(nearest(option, options_of(*reached.verb)), help)};
    }
  }
  return {kMisused, fmt::format("{}: {}", reached.typed, error.what()), help};
}

std::string printable(const std::string& text) {
  std::string out;
  for (const char byte : text) {
    const auto code = static_cast<unsigned char>(byte);
    const bool control = (code < 0x20 && byte != '\n') || code == 0x7F;
    if (control) {
      out += fmt::format("\\x{:02x}", code);
    } else {
      out += byte;
    }
  }
  return out;
}

void tell(const Failure& failure, bool json) {
  std::string what = failure.what();
  what.erase(what.find_last_not_of(" \n") + 1);
  fmt::print(stderr, "snbf: {}\n", printable(what));
  if (!failure.remedy().empty()) fmt::print(stderr, "      {}\n", printable(failure.remedy()));
  if (!json) return;
  const Json object = {
      {"error", what}, {"fix", failure.remedy()}, {"status", static_cast<int>(failure.status())}};
  // A name need not be UTF-8.
  fmt::print("{}\n", object.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace snbf
