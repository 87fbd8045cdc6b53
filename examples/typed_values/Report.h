// How a setting reads: a block of lines for each.
#pragma once

#include <string>

#include "Settings.h"

// A heading of the name and the held type, then every lenient accessor with its
// result, or with the first line of the exception by which it refuses.
std::wstring report(setting const& item);
