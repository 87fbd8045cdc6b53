// The order in which the library's static objects are built when it is loaded.
// They are destroyed in the reverse order when it is unloaded. The language
// settles it within one source only, so every object that does something when it
// is built or destroyed names its step.
#pragma once

#include "velt/base/EntryInternal.h"

namespace velt::detail {

// From first to last: a step may use what stands above it. What is constant from
// the start, such as the switches of Settings.h, has no step.
enum load_step {
  // Destroyed last: everything else may hold values.
  memory_of_holders = 1000,

  symbol_lock_made,       // throws ESystemException
  known_ranges_emptied,   // nothing to build
  debug_stream,
  error_stream,           // its file is not opened before it is written
  console_stream,
  locale_of_user,
  performance_frequency,
  heap_of_texts,
  heaps_tuned,

  stack_overflow_lock,
  stack_overflow_thread,  // its handle is closed if it still runs
  stack_overflow_done,    // throws ESystemException

  types_without_dumps,
  modules_not_to_blame,
  program_name_found,
  platform_locks,         // the entries of ntdll: one that is missing stays null
  process_heap_found,     // and the section that guards it
  translator_slots,       // throw ESystemException
  handler_active_slot,    // throws ESystemException
  system_pool_stopped,    // nothing to build

  // After all that it reads, and the first to go: until then throws go unwatched.
  throws_watched,

  stack_guarantee_found,
};

// Builds at its step what a function would else build on its first use: for
// objects that others may ask for before, such as an exception of a failed step.
struct build_now {
  template <class Function>
  explicit build_now(Function const& function) {
    function();
  }
};

// Then the platform has stopped all other threads, perhaps with the locks of the
// heap and of the loader in their hands, and a destructor leaves things alone.
inline bool process_ends() noexcept {
  auto const ask = find_entry<BOOLEAN NTAPI()>(L"ntdll", "RtlDllShutdownInProgress");
  return ask && ask();
}

}  // namespace velt::detail

// On the definition of an object, which has to be of a class.
#define VELT_LOAD_STEP(STEP) [[gnu::init_priority(velt::detail::STEP)]]
