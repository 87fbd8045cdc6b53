// now, now2: the current local time as the beginning of a line of a log, with a
// blank behind it. For times that programs read, use _time_t::iso8601time().
#pragma once

#include <string>

#include "velt/base/Export.h"

// "29.02.04 12:30:45 ": day, month, year of two digits.
VELT_API std::string now();

// "12:30:45.678 ". If the day of the month is not `lastDay`, the date stands on
// a line of its own before it, "29.02.2004\n12:30:45.678 ", and `lastDay` becomes
// that day. Start with 0, which is no day.
VELT_API std::string now2(unsigned short& lastDay);
