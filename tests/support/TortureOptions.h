// The command line of the programs that torture something for a while:
//
//   NAME [--seconds N] [--seed S] [--threads T]
//
// where a program may call its threads otherwise.
#pragma once

#include <windows.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace velt_test {

struct TortureOptions {
  unsigned int seconds = 4;
  unsigned int seed = static_cast<unsigned int>(GetTickCount64());
  unsigned int threads;
};

namespace detail {

inline std::optional<unsigned int> number(char const* text) {
  unsigned int value = 0;
  char const* const end = text + std::strlen(text);
  auto const result = std::from_chars(text, end, value);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

}  // namespace detail

// Ends the program with 2 after an option that it does not know.
inline TortureOptions torture_options(int count, char** arguments, char const* name_of_threads,
                                      unsigned int threads, unsigned int fewest,
                                      unsigned int most) {
  TortureOptions options{.threads = threads};
  for (int i = 1; i < count; i += 2) {
    std::string const name = arguments[i];
    auto const value = i + 1 < count ? detail::number(arguments[i + 1]) : std::nullopt;
    if (value && name == "--seconds") {
      options.seconds = *value;
    } else if (value && name == "--seed") {
      options.seed = *value;
    } else if (value && name == name_of_threads && *value >= fewest && *value <= most) {
      options.threads = *value;
    } else {
      std::fprintf(stderr, "options: [--seconds N] [--seed S] [%s %u..%u]\n", name_of_threads,
                   fewest, most);
      std::exit(2);
    }
  }
  return options;
}

}  // namespace velt_test
