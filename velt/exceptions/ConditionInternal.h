// The two texts that a failed condition is reduced to.
#pragma once

#include <string_view>

namespace velt::detail {

// The function of a signature, with its class but without result, parameters
// and qualifiers.
std::string_view qualified_name(std::string_view signature);

// A path without its directories.
std::string_view base_name(std::string_view path);

}  // namespace velt::detail
