// Slots of the platform's thread-local storage: a word of each thread, zero at
// first. Reading one allocates nothing, so that it may be done on a stack that
// is nearly full and at the end of a thread, where thread_local may not. The
// thread's last error is left alone.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <bit>
#include <cstddef>

namespace velt::detail {

// The first slots lie in the thread's own block and are read by one instruction.
inline bool lies_in_block(DWORD slot) noexcept { return slot < TLS_MINIMUM_AVAILABLE; }

inline void* read_in_block(DWORD slot) noexcept {
  return std::bit_cast<void*>(__readgsqword(offsetof(TEB, TlsSlots) + slot * sizeof(void*)));
}

// Null for TLS_OUT_OF_INDEXES.
inline void* read_thread_slot(DWORD slot) noexcept {
  if (lies_in_block(slot)) [[likely]]
    return read_in_block(slot);
  if (slot == TLS_OUT_OF_INDEXES) return nullptr;
  DWORD const error = GetLastError();
  void* const value = TlsGetValue(slot);
  SetLastError(error);
  return value;
}

// False if the value could not be stored.
inline bool write_thread_slot(DWORD slot, void* value) noexcept {
  DWORD const error = GetLastError();
  bool const stored = TlsSetValue(slot, value);
  SetLastError(error);
  return stored;
}

}  // namespace velt::detail
