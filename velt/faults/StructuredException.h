// Faults of the processor and of the platform as C++ exceptions.
//
// On a thread that asked for it, a fault below a try block arrives there as an
// EStructuredException. The exception is made on the faulting stack, before any
// unwinding. docs/faults.md lists the flags that a module must be compiled and
// linked with, and the faults that cannot be caught.
#pragma once

#include "velt/base/Export.h"
#include "velt/exceptions/EGeneric.h"

struct _EXCEPTION_POINTERS;

// "Text" (left out if the code has none), "Code", "Address" (its low 32 bits),
// "Parameter0"... as the platform gave them (their low 32 bits). "MiniDump",
// "ModuleName", "AddressName" and "Stack" follow if the settings ask for them.
class VELT_API EStructuredException : public EGeneric {
public:
  EStructuredException();
  // `thread_id` is not used.
  EStructuredException(unsigned int code, _EXCEPTION_POINTERS* pointers, unsigned long thread_id);
};

// Has the signature of the platform's own translators of structured exceptions.
using structured_exception_translator = void (*)(unsigned int code, _EXCEPTION_POINTERS* pointers);

// Turns faults of the calling thread into exceptions from the constructor to the
// end of the thread; the object's destruction does not end it. TThreadClass does
// this for its threads; any other thread makes an object of its own.
class VELT_API redirect_structured_exceptions {
public:
  redirect_structured_exceptions() noexcept;
};

// The same until the end of the object's scope.
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
