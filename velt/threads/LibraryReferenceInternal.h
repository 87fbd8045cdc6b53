// What keeps the library loaded while threads of its own run its code.
#pragma once

namespace velt::detail {

// Takes a reference to the library for a thread that is about to begin. Throws
// ESystemException.
void hold_library();
// Where the thread did not begin.
void release_library() noexcept;
// The last act of the thread, with the exit code 0. Nothing is unwound. If the
// reference is the last, the library is unloaded here, on this thread.
[[noreturn]] void leave_library_and_end_thread() noexcept;

// Is the library being unloaded, so that threads that have left it cannot end
// before that is done? They need the lock that the unloading thread has.
bool library_unloads() noexcept;
void note_that_library_unloads() noexcept;

}  // namespace velt::detail
