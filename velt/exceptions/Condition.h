// VELT_CONDITION: a check that fails only through a defect of the caller or of the
// platform. A true expression does nothing. A false one throws a plain EGeneric with
// the values "Text" ("Condition not meet"), "Condition", "SourceFile", "SourceLine"
// and "SourceFunction", in this order.
#pragma once

#include "velt/base/Export.h"

namespace velt::detail {

// Drops the folders of `file`. `function` may be a whole signature, such as
// __PRETTY_FUNCTION__ gives; only its qualified name is kept.
[[noreturn]] VELT_API void throw_condition(char const* condition, char const* file, int line,
                                           char const* function);

}  // namespace velt::detail

#define VELT_CONDITION(expression)                                              \
  ((expression) ? static_cast<void>(0)                                          \
                : ::velt::detail::throw_condition(#expression, __FILE__, __LINE__, \
                                                  __PRETTY_FUNCTION__))
