#include <windows.h>

#include <fmt/format.h>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "bench/Rows.h"
#include "velt/text/Case.h"
#include "velt/text/Encoding.h"
#include "velt/text/Format.h"
#include "velt/text/Splitting.h"
#include "velt/text/Trim.h"

namespace bench {
namespace {

// All of 40 characters.
std::string padded = "    forty characters, some to be gone   ";
std::string mixed_case = "Forty CHARACTERS, in Upper and Lower One";
std::string narrow_text = "forty characters, and not a single more.";
std::wstring wide_text = L"forty characters, and not a single more.";

// What the peer takes for white space in the classic locale.
char const* white_space = " \t\n\v\f\r";

std::string ten_fields = "one;two;three;four;five;six;seven;eight;nine;the tenth field";
std::vector<std::string> ten_words = {"one", "two",   "three", "four", "five",
                                      "six", "seven", "eight", "nine", "the tenth field"};

char const* name = "velt";
int number = 12345;
double fraction = 3.14159265358979;

std::string print() {
  char buffer[2048];
  int const length = std::snprintf(buffer, sizeof buffer, "%s %d %.3f", input(name), input(number),
                                   input(fraction));
  return {buffer, static_cast<std::size_t>(length)};
}

std::wstring widen_by_platform(std::string const& text) {
  auto const length = static_cast<int>(text.size());
  int const size = MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
  std::wstring result(static_cast<std::size_t>(size), L'\0');
  MultiByteToWideChar(CP_ACP, 0, text.data(), length, result.data(), size);
  return result;
}

std::string narrow_by_platform(std::wstring const& text) {
  auto const length = static_cast<int>(text.size());
  int const size =
      WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_ACP, 0, text.data(), length, result.data(), size, nullptr, nullptr);
  return result;
}

std::vector<std::string> divided() {
  std::vector<std::string> words;
  divide_string(input(ten_fields), words, ";");
  return words;
}

std::vector<std::string> divided_by_boost() {
  std::vector<std::string> words;
  boost::split(words, input(ten_fields), boost::is_any_of(";"), boost::token_compress_on);
  return words;
}

std::string consolidated() {
  std::string result;
  consolidate_string(input(ten_words), result, ";");
  return result;
}

std::string joined_by_stream() {
  std::ostringstream stream;
  bool first = true;
  for (auto const& word : input(ten_words)) {
    if (!first) stream << ';';
    stream << word;
    first = false;
  }
  return stream.str();
}

}  // namespace

std::vector<Row> text_rows() {
  return {
      {"format",
       loop([] { keep(format_string("%s %d %.3f", input(name), input(number), input(fraction))); }),
       {{"snprintf", 1.1, loop([] { keep(print()); })},
        {"fmt::format", no_goal, loop([] {
           keep(fmt::format("{} {} {:.3f}", input(name), input(number), input(fraction)));
         })}}},

      {"trim",
       loop([] { keep(trim(input(padded), input(white_space))); }),
       {{"boost::trim_copy", 0.7, loop([] { keep(boost::trim_copy(input(padded))); })}}},

      {"strlower",
       loop([] { keep(strlower(input(mixed_case))); }),
       {{"boost::to_lower_copy", 0.3,
         loop([] { keep(boost::to_lower_copy(input(mixed_case))); })}}},

      {"widen",
       loop([] { keep(as_wstring(input(narrow_text))); }),
       {{"MultiByteToWideChar", 1.15, loop([] { keep(widen_by_platform(input(narrow_text))); })}}},

      {"narrow",
       loop([] { keep(as_string(input(wide_text))); }),
       {{"WideCharToMultiByte", 1.15, loop([] { keep(narrow_by_platform(input(wide_text))); })}}},

      {"divide",
       loop([] { keep(divided()); }),
       {{"boost::split", 0.5, loop([] { keep(divided_by_boost()); })}}},

      {"consolidate",
       loop([] { keep(consolidated()); }),
       {{"std::ostringstream", 0.4, loop([] { keep(joined_by_stream()); })}}},
  };
}

}  // namespace bench
