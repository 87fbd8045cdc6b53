// Faults of the processor and of the platform as C++ exceptions.
//
// On a thread that asked for it, a fault below a try block arrives there as an
// EStructuredException, which was made on the faulting stack before any
// unwinding. docs/faults.md tells what a module must be compiled and linked
// with, and what cannot be caught.
#pragma once

#include "velt/base/Export.h"
#include "velt/exceptions/EGeneric.h"

struct _EXCEPTION_POINTERS;

// "Text" (left out if the code has none), "Code", "Address" (its low 32 bits),
// "Parameter0"... as the platform gave them (their low 32 bits), and what the
// settings ask for of "MiniDump", "ModuleName", "AddressName" and "Stack".
class VELT_API EStructuredException : public EGeneric {
public:
  EStructuredException();
  // `thread_id` is not used.
  EStructuredException(unsigned int code, _EXCEPTION_POINTERS* pointers, unsigned long thread_id);
};

// In the form of the platform's translators of structured exceptions.
using structured_exception_translator = void (*)(unsigned int code, _EXCEPTION_POINTERS* pointers);

// Faults of the calling thread become exceptions from here on; there is nothing
// to undo. TThreadClass does this for its threads; any other thread that wants
// it makes one.
class VELT_API redirect_structured_exceptions {
public:
  redirect_structured_exceptions() noexcept;
};

// The same until the end of the scope.
class VELT_API temporary_redirect_structured_exceptions {
public:
  temporary_redirect_structured_exceptions() noexcept;
  ~temporary_redirect_structured_exceptions();
  temporary_redirect_structured_exceptions(temporary_redirect_structured_exceptions const&) =
      delete;
  temporary_redirect_structured_exceptions& operator=(
      temporary_redirect_structured_exceptions const&) = delete;

private:
  structured_exception_translator previous;
};
