// What is written about an exception that nobody caught.
#pragma once

#include <exception>

class TDebugStreamSession;

namespace velt::detail {

// "class:text", with a line feed before a text of several lines. Throws what
// writing throws.
void write_exception(TDebugStreamSession& session, std::exception const& exception);

}  // namespace velt::detail
