// Readable names of types, as the platform's type information gives them.
#pragma once

#include <string>
#include <typeinfo>

#include "velt/base/Export.h"

namespace velt::detail {

// The undecorated name of the type; its decorated name if it cannot be
// undecorated.
VELT_API std::string readable_name(std::type_info const& type);

}  // namespace velt::detail
