// Keeps the library loaded while threads of its own run its code.
#pragma once

namespace velt::detail {

// Takes a reference to the library for a thread that is about to begin. Throws
// ESystemException.
void hold_library();
// For a thread that could not be started.
void release_library() noexcept;
// The last act of a thread that CreateThread began, with the exit code 0. Nothing is
// unwound. If the reference is the last, the library is unloaded here, on this thread.
[[noreturn]] void leave_library_and_end_thread() noexcept;
// The same for a thread that the run time began.
[[noreturn]] void leave_library_and_end_run_time_thread() noexcept;

// Is the library being unloaded? Then threads that have left it cannot end before
// that is done: they need the lock that the unloading thread holds.
bool library_unloads() noexcept;
void note_that_library_unloads() noexcept;

}  // namespace velt::detail
