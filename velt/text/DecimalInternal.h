// The decimal text of an int, inline for a reader whose whole work is little
// more than that.
#pragma once

#include <array>
#include <cstring>
#include <string>

namespace velt::detail {

// "00" to "99".
inline constexpr auto digit_pairs = [] {
  std::array<std::array<char, 2>, 100> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i)
    pairs[i] = {static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
  return pairs;
}();

constexpr unsigned decimal_length(unsigned number) {
  return number < 10              ? 1
         : number < 100           ? 2
         : number < 1'000         ? 3
         : number < 10'000        ? 4
         : number < 100'000       ? 5
         : number < 1'000'000     ? 6
         : number < 10'000'000    ? 7
         : number < 100'000'000   ? 8
         : number < 1'000'000'000 ? 9
                                  : 10;
}

// Like std::to_string, which takes longer: it fills a text whose length the
// compiler does not know. Here that is as many characters as fit into the
// string object itself, signs all of them, and what is too many goes.
inline std::string decimal_text(int value) {
  bool const negative = value < 0;
  auto rest = static_cast<unsigned>(value);
  if (negative) rest = 0 - rest;

  std::string text(15, '-');
  unsigned const length = negative + decimal_length(rest);
  char* place = text.data() + length;
  for (; rest >= 100; rest /= 100) std::memcpy(place -= 2, &digit_pairs[rest % 100], 2);
  if (rest >= 10)
    std::memcpy(place - 2, &digit_pairs[rest], 2);
  else
    place[-1] = static_cast<char>('0' + rest);
  text.erase(length);
  return text;
}

}  // namespace velt::detail
