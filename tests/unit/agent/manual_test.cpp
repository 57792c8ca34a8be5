// SPDX-License-Identifier: GPL-2.0-only
// Help, manual and completion tell what the parser takes, all of it, and fit a terminal.
#include "manual.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>

#include "command.h"
#include "completion.h"
#include "files.h"

namespace snbf {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

const fs::path kSources = SNBF_SOURCES;

std::string text_of(const fs::path& path) {
  std::string text;
  EXPECT_TRUE(read_file(path, &text)) << path;
  return text;
}

// A verb, or each of the verbs that it has.
void each_leaf(const Verb& verb, const std::function<void(const Verb&)>& visit) {
  if (verb.verbs.empty()) visit(verb);
  for (const Verb& below : verb.verbs) each_leaf(below, visit);
}

std::string help_of(const std::string& verb) {
  Chosen chosen;
  const auto app = new_parser(chosen);
  const CLI::App* at = app.get();
  std::istringstream words(verb);
  for (std::string word; words >> word;) at = at->get_subcommand(word);
  return at->help();
}

TEST(Help, FitsATerminalOf80Columns) {
  std::vector<std::string> verbs = {"", "snap"};
  each_leaf(tool_grammar(), [&](const Verb& verb) { verbs.push_back(verb.name); });
  for (const std::string& verb : verbs) {
    std::istringstream lines(help_of(verb));
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), 80u) << verb << ": " << line;
    }
  }
}

TEST(Help, EveryVerbHasAnExampleOfItself) {
  each_leaf(tool_grammar(), [](const Verb& verb) {
    const std::string call = "snbf " + verb.name;
    const bool found =
        std::any_of(verb.examples.begin(), verb.examples.end(),
                    [&](const std::string& line) { return line.find(call) != std::string::npos; });
    EXPECT_TRUE(found) << verb.name;
    EXPECT_THAT(help_of(verb.name), HasSubstr("\n  " + verb.examples.at(0) + "\n"));
  });
}

TEST(Help, TellsEveryOptionWithItsValues) {
  each_leaf(tool_grammar(), [](const Verb& verb) {
    for (const Option& option : verb.options) {
      EXPECT_FALSE(option.text.empty()) << verb.name;
      EXPECT_NE(option.word, "VALUE") << verb.name << " " << option.names.back();
      EXPECT_THAT(help_of(verb.name),
                  HasSubstr(option.names.back() + (option.word.empty() ? "" : " " + option.word)));
    }
    for (const Argument& argument : verb.arguments) EXPECT_FALSE(argument.text.empty());
  });
}

TEST(Grammar, ReadsAFooter) {
  CLI::App app;
  app.footer("Examples:\n  snbf one\n  snbf two\nFirst, and\ngoes on.\n\nSecond.");
  const Verb verb = grammar_of(app, "");
  EXPECT_THAT(verb.examples, ElementsAre("snbf one", "snbf two"));
  EXPECT_THAT(verb.paragraphs, ElementsAre("First, and goes on.", "Second."));
}

TEST(Grammar, ReadsOptionsAndArguments) {
  CLI::App app;
  std::string value;
  std::vector<std::string> many;
  bool flag = false;
  app.add_option("node", value, "A node")->required();
  app.add_option("snaps", many, "Snaps");
  app.add_option("-l,--level", value, "How")->check(CLI::IsMember({"a", "b"}));
  app.add_option("--name", value, "What")->required();
  app.add_flag("--json", flag, "JSON");
  const Verb verb = grammar_of(app, "verb");
  EXPECT_EQ(synopsis_of(verb), "snbf verb --name NAME [OPTIONS] NODE [SNAPS...]");
  ASSERT_EQ(verb.options.size(), 4u);  // and --help
  EXPECT_THAT(verb.options[1].names, ElementsAre("-l", "--level"));
  EXPECT_THAT(verb.options[1].choices, ElementsAre("a", "b"));
  EXPECT_EQ(verb.options[1].word, "a|b");
  EXPECT_EQ(verb.options[3].word, "");
  EXPECT_EQ(verb.arguments[0].kind, ValueKind::Node);
}

TEST(Wrapped, BreaksBetweenWordsAndKeepsLongOnes) {
  EXPECT_EQ(wrapped("one two three", 8, 0), "one two\nthree");
  EXPECT_EQ(wrapped("one two", 8, 4), "one\n    two");
  EXPECT_EQ(wrapped("abcdefghijk x", 5, 0), "abcdefghijk\nx");
}

TEST(Manual, HasAPageForEveryVerbAndForNothingElse) {
  std::set<std::string> there;
  for (const auto& file : fs::directory_iterator(kSources / "docs/man")) {
    there.insert(file.path().filename());
  }
  std::set<std::string> wanted = {"snbf.1.scd", "snbf.4.scd"};
  for (const Verb& verb : tool_grammar().verbs) wanted.insert("snbf-" + verb.name + ".1.scd");
  EXPECT_EQ(there, wanted);
}

TEST(Manual, APageHoldsTheVerbsOwnOptions) {
  const Verb tool = tool_grammar();
  const Verb* verb = verb_of_page(tool, "snbf-attach.1.scd");
  ASSERT_NE(verb, nullptr);
  const std::string page = fill_page("@HEAD@\n@TAIL@\n", tool, verb, "1");
  EXPECT_THAT(page, HasSubstr("*\\-\\-extent* _SIZE_\n\tBytes that one bit stands for"));
  EXPECT_THAT(page, HasSubstr("_partition_\n\tThe partition's device file\\."));
  EXPECT_THAT(page, HasSubstr("```\nsnbf attach /dev/sdb1"));
  EXPECT_THAT(page, HasSubstr("*6*\n\trefused as unsafe"));
}

TEST(Manual, APageOfVerbsHoldsEachOfThem) {
  const Verb tool = tool_grammar();
  const std::string page =
      fill_page("@HEAD@\n@TAIL@\n", tool, verb_of_page(tool, "snbf-snap.1.scd"), "1");
  for (const char* part :
       {"# SNAP CREATE", "# SNAP DELETE", "*\\-\\-chunk* _SIZE_", "*\\-\\-all*"}) {
    EXPECT_THAT(page, HasSubstr(part));
  }
}

TEST(Manual, AMarkThatIsUnknownOrMissingEndsTheBuild) {
  const Verb tool = tool_grammar();
  const Verb* verb = &tool.verbs.front();
  EXPECT_THROW(fill_page("@HEAD@\n", tool, verb, "1"), std::runtime_error);
  EXPECT_THROW(fill_page("@HEAD@\n@TAIL@\n@OPTIONS@\n", tool, verb, "1"), std::runtime_error);
  EXPECT_EQ(fill_page("a @VERSION@\n", tool, nullptr, "7"), "a 7\n");
}

TEST(Manual, ThePagesAreCleanToTheFormatter) {
  size_t pages = 0;
  for (const auto& file : fs::directory_iterator(SNBF_PAGES)) {
    if (file.path().extension() == ".scd") continue;
    ++pages;
    const Ran ran =
        run({"groff", "-ww", "-z", "-t", "-man", "-Tutf8", "-rLL=78n", file.path().string()});
    EXPECT_EQ(ran.status, 0) << file.path();
    EXPECT_EQ(ran.errors, "") << file.path();
  }
  EXPECT_EQ(pages, tool_grammar().verbs.size() + 2);
}

// All that `pattern` finds in a source file.
std::set<std::string> found_in(const fs::path& file, const char* pattern) {
  const std::string text = text_of(kSources / file);
  const std::regex expression(pattern);
  std::set<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    found.insert((*at)[1]);
  }
  return found;
}

TEST(DriversPage, NamesEveryParameterCommandAndProcFile) {
  const fs::path page = "docs/man/snbf.4.scd";
  const auto bold = found_in(page, R"(\*([A-Za-z_]+)\*)");
  const auto parameters = found_in("platform/linux/module.c", R"(module_param\((\w+))");
  const auto commands = found_in("include/snbf/protocol.h", R"(#define (SNBF_\w+) 0x[0-9a-f]{8}u)");
  const auto fields = found_in("driver/control/procfields.cpp", R"re(\{"(\w+)", show_)re");
  EXPECT_GE(parameters.size(), 4u);
  EXPECT_GE(fields.size(), 20u);
  for (const std::string& name : parameters) EXPECT_THAT(bold, testing::Contains(name));
  for (const std::string& name : fields) EXPECT_THAT(bold, testing::Contains(name));
  size_t known = 0;
  for (const std::string& name : commands) {
    if (name == "SNBF_CMD_IN" || name == "SNBF_CMD_OUT") continue;
    EXPECT_THAT(bold, testing::Contains(name));
    ++known;
  }
  EXPECT_EQ(known, 17u);
}

TEST(ListsPage, NamesEveryColumn) {
  const std::string page = text_of(kSources / "docs/man/snbf-list.1.scd");
  const std::string sentence = page.substr(page.find("Columns:"));
  const auto columns = found_in("agent/snbf/verbs/list.cpp", R"re(\{"(\w+)", "[A-Z]+", )re");
  EXPECT_GE(columns.size(), 10u);
  for (const std::string& name : columns) {
    EXPECT_THAT(sentence.substr(0, sentence.find('.')), testing::ContainsRegex("[ \n]" + name));
  }
}

// Adjacent string literals are one message.
std::string driver_sources() {
  std::string all;
  for (const auto& file : fs::recursive_directory_iterator(kSources / "driver")) {
    if (file.path().extension() == ".cpp") all += text_of(file.path());
  }
  return std::regex_replace(all, std::regex("\"\\s*\""), "");
}

TEST(DriversPage, QuotesMessagesThatTheDriverHas) {
  const auto quoted = found_in("docs/man/snbf.4.scd", R"(\n\*\.\.\. (.*) \.\.\.\*\n)");
  EXPECT_GE(quoted.size(), 10u);
  const std::string driver = driver_sources();
  for (const std::string& part : quoted) EXPECT_THAT(driver, HasSubstr(part));
}

// What the shell would be shown for the last of these words.
std::vector<std::string> completed(const std::vector<std::string>& words) {
  std::string script = text_of(SNBF_COMPLETION) + "\nsnbf() { echo data; }\nCOMP_WORDS=(";
  for (const std::string& word : words) script += "'" + word + "' ";
  script += ")\nCOMP_CWORD=" + std::to_string(words.size() - 1);
  script += "\n_snbf\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
  std::istringstream lines(run_or_throw({"bash", "-c", script}));
  std::vector<std::string> found;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) found.push_back(line);
  }
  return found;
}

TEST(Completion, ProposesEveryVerbAndEveryOption) {
  std::vector<std::string> verbs;
  for (const Verb& verb : tool_grammar().verbs) verbs.push_back(verb.name);
  EXPECT_THAT(completed({"snbf", ""}), testing::UnorderedElementsAreArray(verbs));
  each_leaf(tool_grammar(), [](const Verb& verb) {
    std::vector<std::string> line = {"snbf"};
    std::istringstream words(verb.name);
    for (std::string word; words >> word;) line.push_back(word);
    line.push_back("--");
    std::vector<std::string> options;
    for (const Option& option : verb.options) {
      for (const std::string& name : option.names) {
        if (name.starts_with("--")) options.push_back(name);
      }
    }
    EXPECT_THAT(completed(line), testing::UnorderedElementsAreArray(options)) << verb.name;
  });
}

TEST(Completion, ProposesWhatAnArgumentOrAValueCanBe) {
  EXPECT_THAT(completed({"snbf", "snap", ""}),
              UnorderedElementsAre("create", "list", "delete", "resume"));
  EXPECT_THAT(completed({"snbf", "status", ""}), ElementsAre("data"));
  EXPECT_THAT(completed({"snbf", "status", "data", ""}), IsEmpty());
  EXPECT_THAT(completed({"snbf", "backup", "--level", ""}), testing::Contains("incr"));
  EXPECT_THAT(completed({"snbf", "backup", "--level", "i"}), ElementsAre("incr"));
  EXPECT_THAT(completed({"snbf", "backup", "--level", "incr", ""}), ElementsAre("data"));
  EXPECT_THAT(completed({"snbf", "bitmap", "get", ""}), ElementsAre("data"));
  EXPECT_THAT(completed({"snbf", "snap", "delete", "monday", ""}), ElementsAre("data"));
  EXPECT_THAT(completed({"snbf", "attach", "--name", ""}), IsEmpty());
  EXPECT_THAT(completed({"snbf", "restore", "--scratch", "/us"}), ElementsAre("/usr"));
  EXPECT_THAT(completed({"snbf", "up", "--root", "/us"}), ElementsAre("/usr"));
}

TEST(Completion, KnowsWhatEveryArgumentIs) {
  each_leaf(tool_grammar(), [](const Verb& verb) {
    for (const Argument& argument : verb.arguments) {
      EXPECT_NE(argument.kind, ValueKind::Any) << verb.name << " " << argument.name;
    }
  });
}

}  // namespace
}  // namespace snbf
