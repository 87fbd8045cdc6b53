// The check of a condition whose failure is a defect of the caller or of the
// platform. A true expression does nothing; a false one throws a plain EGeneric
// with the values "Text" ("Condition not meet"), "Condition", "SourceFile",
// "SourceLine" and "SourceFunction", in this order.
#pragma once

#include "velt/base/Export.h"

namespace velt::detail {

// `file` may have directories in front; `function` may be a whole signature, as
// __PRETTY_FUNCTION__ gives it, of which the qualified name is taken.
[[noreturn]] VELT_API void throw_condition(char const* condition, char const* file, int line,
                                           char const* function);

}  // namespace velt::detail

#define VELT_CONDITION(expression)                                              \
  ((expression) ? static_cast<void>(0)                                          \
                : ::velt::detail::throw_condition(#expression, __FILE__, __LINE__, \
                                                  __PRETTY_FUNCTION__))
