// The watch on throws: collects the stack and the dump of each C++ throw before any
// unwinding.
#pragma once

namespace velt::detail {

// Called when the library is loaded, after everything that the watch reads is built,
// and when it is unloaded, before any of that is destroyed. `process_ends`: the other
// threads are gone, and may have owned locks of the platform.
void start_watching_throws();
void stop_watching_throws(bool process_ends) noexcept;

}  // namespace velt::detail
