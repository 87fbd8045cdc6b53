// The full names of addresses that were asked for since the engine was loaded.
// A process that reports much reports the same frames again and again.
//
// No operation waits for another thread, which may be suspended amid one so that
// its stack can be walked; a thread that does not get in goes without.
#pragma once

#include <string>

namespace velt::detail {

// Empty if it is not known.
std::string known_text(unsigned __int64 address);

// `changes` is what engine_changes was when the making of the text began.
void remember_text(unsigned __int64 address, std::string const& text, unsigned changes) noexcept;

void forget_texts();

}  // namespace velt::detail
