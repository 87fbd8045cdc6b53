// Shows how a setting reads as each type, in a block of lines.
#pragma once

#include <string>

#include "Settings.h"

// A heading with the name and the held type, then every lenient accessor with its
// result, or with the first line of the exception by which it refuses.
std::wstring report(setting const& item);
