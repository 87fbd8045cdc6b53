// What the tests of the examples read out of the output of a program and out of
// the pages that show it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace velt_test {

inline std::filesystem::path const source_folder = VELT_SOURCE_DIR;

inline std::vector<std::string> lines_of(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// How far behind its beginning a function was left is a matter of the compiler.
inline std::string without_offsets(std::string const& text) {
  return std::regex_replace(text, std::regex("\\+[0-9a-f]+\\["), "[");
}

// "program!function[File.cpp#12]", where 12 is the number of the one line of the
// program's file that has the code.
inline std::string frame(std::string const& program, std::string const& function,
                         std::string const& file, std::string const& code) {
  int number = 0;
  std::vector<int> found;
  for (auto const& line : lines_of(content_of(source_folder / "examples" / program / file))) {
    ++number;
    if (line.find(code) != line.npos) found.push_back(number);
  }
  EXPECT_THAT(found, testing::SizeIs(1)) << code;
  return program + '!' + function + '[' + file + '#' + std::to_string(found.at(0)) + ']';
}

}  // namespace velt_test
