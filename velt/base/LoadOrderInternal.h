// The order in which the library's static objects are built when it is loaded.
// They are destroyed in the reverse order when it is unloaded. The language defines
// this order only within one source file, so every object whose constructor or
// destructor does something names its step.
#pragma once

#include "velt/base/EntryInternal.h"

namespace velt::detail {

// From first to last: a step may use the steps above it. Objects that are initialised
// at compile time, such as the switches of Settings.h, have no step.
enum load_step {
  // Destroyed last: everything else may hold values.
  memory_of_holders = 1000,

  symbol_lock_made,       // throws ESystemException
  engine_abandoned,       // nothing to build
  debug_stream,
  error_stream,           // opens its file at the first write
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
  platform_locks,         // the entries of ntdll; a missing one stays null
  process_heap_found,     // with the section that guards it
  insides_compared,       // nothing to destroy
  translator_slots,       // throw ESystemException
  handler_active_slot,    // throws ESystemException
  insides_reported,       // nothing to destroy
  system_pool_stopped,    // nothing to build

  // Built after everything that it reads, and destroyed before all of it. Earlier and
  // later throws are not watched.
  throws_watched,

  stack_guarantee_found,
  heap_calls_found,
};

// Calls a function at its step that otherwise builds its object on first use. For
// objects that may be needed earlier, for example by the exception of a failed step.
struct build_now {
  template <class Function>
  explicit build_now(Function const& function) {
    function();
  }
};

// True if the process is ending. Then the platform has ended all other threads, which
// may have owned the locks of the heap and the loader, so destructors must do nothing.
inline bool process_ends() noexcept {
  auto const ask = find_entry<BOOLEAN NTAPI()>(L"ntdll", "RtlDllShutdownInProgress");
  return ask && ask();
}

}  // namespace velt::detail

// For the definition of an object of class type.
#define VELT_LOAD_STEP(STEP) [[gnu::init_priority(velt::detail::STEP)]]
