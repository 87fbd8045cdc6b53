// The general text of a double: seven significant digits in the form of the
// platform's _gcvt. Trailing zeros are left out and the point is kept: "1.5",
// "100.", "0.". Values that round to less than 0.1 or to 1e7 or more have an
// exponent of at least three digits: "5.e-002", "1.e+010". Infinities are
// "1.#INF" and "-1.#INF", what is not a number is "1.#QNAN", or "-1.#IND" with
// the sign bit set.
//
// The run time's own function is not asked: its digits are the same, but not
// every system's writes the point, and it takes several times as long.
#pragma once

#include <cstddef>
#include <string>

#include "velt/base/Export.h"

namespace velt::detail {

inline constexpr std::size_t general_text_limit = 16;

// Writes at most general_text_limit characters, without a terminator, and
// returns their end.
char* general_text(double value, char* buffer) noexcept;

VELT_API std::string general_text(double value);

}  // namespace velt::detail
