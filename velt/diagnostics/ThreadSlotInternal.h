// A slot of thread-local storage with the life of the library.
#pragma once

#include <utility>

#include "velt/exceptions/ExceptionFamily.h"
#include "velt/value/ThreadSlotInternal.h"

namespace velt::detail {

// Holds a T* for each thread, null at first. Meant for static objects: before
// its construction and after its destruction it reads as null on every thread,
// since exceptions are thrown then too.
template <class T>
class thread_slot {
public:
  thread_slot() : complement(~TlsAlloc()) {
    if (index() == TLS_OUT_OF_INDEXES) ThrowSystemException();
  }
  ~thread_slot() { TlsFree(~std::exchange(complement, 0)); }
  thread_slot(thread_slot const&) = delete;
  thread_slot& operator=(thread_slot const&) = delete;

  T* get() const noexcept { return reinterpret_cast<T*>(read_thread_slot(index())); }
  void set(T* value) const noexcept { write_thread_slot(index(), reinterpret_cast<void*>(value)); }

private:
  DWORD index() const noexcept { return ~complement; }

  // Of the index, so that memory of zeros is no slot.
  DWORD complement;
};

}  // namespace velt::detail
