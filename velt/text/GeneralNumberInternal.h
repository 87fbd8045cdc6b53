// The general text of a double: seven significant digits in the form of the
// platform's _gcvt. Trailing zeros are left out and the point is kept: "1.5",
// "100.", "0.". Values that round to less than 0.1 or to 1e7 or more have an
// exponent of at least three digits: "5.e-002", "1.e+010". Infinities are
// "1.#INF" and "-1.#INF"; a NaN is "1.#QNAN", or "-1.#IND" with the sign bit set.
//
// A value halfway between two texts rounds away from zero. The point is that of
// the run time's locale, as setlocale set it, so that atof reads the text back.
//
// The run time's own function gives the same digits, but it takes several times
// as long, and not every system's writes the point.
#pragma once

#include <string>

#include "velt/base/Export.h"

namespace velt::detail {

VELT_API std::string general_text(double value);

}  // namespace velt::detail
