// SPDX-License-Identifier: GPL-2.0-only
// snbf_manual SOURCE VERSION: a manual page's source, filled in, for scdoc(1). Used by the build
// alone.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "manual.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    std::ifstream file(argv[1]);
    std::stringstream source;
    source << file.rdbuf();
    const snbf::Verb tool = snbf::tool_grammar();
    const snbf::Verb* verb =
        snbf::verb_of_page(tool, std::filesystem::path(argv[1]).filename().string());
    std::cout << snbf::fill_page(source.str(), tool, verb, argv[2]);
    return std::cout.flush() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << argv[1] << ": " << error.what() << "\n";
    return 1;
  }
}
