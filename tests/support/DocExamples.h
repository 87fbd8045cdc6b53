// Keeps the examples of the documentation honest: every one on a page must
// stand, line for line, in the test that runs it.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace velt_test {

inline std::string without_indentation(std::string const& line) {
  auto const begin = line.find_first_not_of(" \t");
  auto const end = line.find_last_not_of(" \t\r");
  return begin == std::string::npos ? "" : line.substr(begin, end - begin + 1);
}

// `page` is one under docs/; `source` is the test's __FILE__.
inline void expect_doc_examples_run(std::string const& page, std::string const& source) {
  std::string code, line;
  for (std::ifstream file(source); std::getline(file, line);)
    code += without_indentation(line) + '\n';

  int examples = 0;
  std::ifstream file(VELT_SOURCE_DIR "/docs/" + page);
  while (std::getline(file, line)) {
    if (line != "```cpp") continue;
    std::string example;
    while (std::getline(file, line) && line != "```") example += without_indentation(line) + '\n';
    EXPECT_NE(code.find(example), std::string::npos) << page << " shows but no test runs:\n"
                                                     << example;
    ++examples;
  }
  EXPECT_GT(examples, 0) << page << " has no example";
}

}  // namespace velt_test
