// The watch on throws: stack and dump of each C++ throw, taken before any
// unwinding.
#pragma once

namespace velt::detail {

// Called when the library is loaded, after all that the watch reads is there,
// and before any of that goes when it is unloaded. `process_ends`: then the
// other threads are gone, perhaps with the platform's locks in their hands.
void start_watching_throws();
void stop_watching_throws(bool process_ends) noexcept;

}  // namespace velt::detail
