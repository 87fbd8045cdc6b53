// Slots of the platform's thread-local storage: one word for each thread, zero at
// first. Reading a slot allocates nothing, so it is safe on a stack that is nearly
// full and at the end of a thread, where thread_local is not. The thread's last
// error does not change.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <bit>
#include <cstddef>
#include <utility>

#include "velt/base/CheckInternal.h"
#include "velt/base/LastErrorInternal.h"

namespace velt::detail {

// How many slots, the first ones, are known to lie in the thread's own block, where one
// instruction reads them. No document gives their place: see owned_slot.
inline constinit DWORD slots_in_block = 0;

inline bool lies_in_block(DWORD slot) noexcept { return slot < slots_in_block; }

inline void* read_in_block(DWORD slot) noexcept {
  return std::bit_cast<void*>(__readgsqword(offsetof(TEB, TlsSlots) + slot * sizeof(void*)));
}

// Null for TLS_OUT_OF_INDEXES.
inline void* read_thread_slot(DWORD slot) noexcept {
  if (lies_in_block(slot)) [[likely]]
    return read_in_block(slot);
  if (slot == TLS_OUT_OF_INDEXES) return nullptr;
  last_error_keeper const error;
  return TlsGetValue(slot);
}

// False if the value could not be stored.
inline bool write_thread_slot(DWORD slot, void* value) noexcept {
  last_error_keeper const error;
  return TlsSetValue(slot, value);
}

// A slot with the life of the library. Meant for static objects: before its
// construction and after its destruction it reads as zero on every thread, since
// exceptions are thrown then too.
class owned_slot {
public:
  // The first slot shows whether they lie where this library supposes.
  owned_slot() noexcept : complement(~TlsAlloc()) {
    if (index() >= TLS_MINIMUM_AVAILABLE || slots_in_block != 0) return;
    if (write(this) && read_in_block(index()) == this) slots_in_block = TLS_MINIMUM_AVAILABLE;
    write(nullptr);
  }
  ~owned_slot() { TlsFree(~std::exchange(complement, 0)); }
  owned_slot(owned_slot const&) = delete;
  owned_slot& operator=(owned_slot const&) = delete;

  // Is there a slot? The platform may have none left.
  bool exists() const noexcept { return index() != TLS_OUT_OF_INDEXES; }
  void* read() const noexcept { return read_thread_slot(index()); }
  // False if the value could not be stored.
  bool write(void* value) const noexcept { return write_thread_slot(index(), value); }

private:
  DWORD index() const noexcept { return ~complement; }

  // Of the index, so that memory of zeros is no slot.
  DWORD complement;
};

// Holds a T* for each thread, null at first.
template <class T>
class thread_slot : owned_slot {
public:
  // Throws ESystemException if the platform has no slot left.
  thread_slot() { check(exists()); }

  T* get() const noexcept { return reinterpret_cast<T*>(read()); }
  void set(T* value) const noexcept { write(reinterpret_cast<void*>(value)); }
};

}  // namespace velt::detail
