// The shared library as others meet it: from C, from Python, and by the names that it exports.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

extern "C" int use_from_c(const char** failed);

namespace {

using Names = std::set<std::string>;

std::string text_of(const std::string& path) {
  std::ifstream in{path};
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

Names find_names(const std::string& text, const char* pattern) {
  Names names;
  const std::regex expression{pattern};
  for (std::sregex_iterator found{text.begin(), text.end(), expression}, end; found != end; ++found) {
    names.insert((*found)[1]);
  }
  return names;
}

std::string output_of(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char part[4096];
  while (size_t got = fread(part, 1, sizeof(part), pipe)) output.append(part, got);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

TEST(Abi, ExportsWhatTheHeaderDeclaresAndNothingElse) {
  std::string header = text_of(SNBF_SOURCES "/agent/libsnbf/libsnbf.h") +
                       text_of(SNBF_SOURCES "/agent/libsnbf/libsnbf_capture.h");
  header = std::regex_replace(header, std::regex{R"(/\*[^*]*\*+([^/*][^*]*\*+)*/)"}, "");
  const Names declared = find_names(header, R"(\b(libsnbf_\w+)\()");
  EXPECT_GT(declared.size(), 30u);
  const std::string exported = output_of("nm -D --defined-only " SNBF_LIBRARY);
  EXPECT_EQ(find_names(exported, R"( T (\w+)@@LIBSNBF_\d+)"), declared);
  // Nothing without a version, and no C++ name.
  EXPECT_EQ(find_names(exported, R"( [TtWwVuBDR] (\w+)\n)"), Names{});
}

TEST(Abi, WorksFromC) {
  const char* failed = "";
  EXPECT_EQ(use_from_c(&failed), 0) << failed;
}

TEST(Abi, WorksFromPython) {
  EXPECT_EQ(output_of("python3 -B " SNBF_SOURCES "/tests/unit/abi/use.py " SNBF_LIBRARY), "worked\n");
}

}  // namespace
