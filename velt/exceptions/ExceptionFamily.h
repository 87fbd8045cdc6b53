// The exceptions that the library throws, one class for each source of failure. A
// class only adds constructors to EGeneric. They fill the list with the named values
// given here, in this order, in which what() prints them too. Texts of the platform
// are wide values.
#pragma once

#include <cerrno>
#include <string>

#include "velt/base/Export.h"
#include "velt/exceptions/EGeneric.h"

class _com_error;
struct IErrorInfo;

namespace velt::detail {

// GetLastError(), without the platform's headers.
VELT_API int last_error() noexcept;

}  // namespace velt::detail

// A failed call of the platform. "Code", "Text" (the system's text without its line
// ends; empty if there is none), then the caller's values.
class VELT_API ESystemException : public EGeneric {
public:
  // With the platform's code, by default that of the last failed call.
  ESystemException(int code = velt::detail::last_error());
  ESystemException(int code, P const& a);
  ESystemException(int code, P const& a, P const& b);
};

// A failed call of the run-time library. "Code", the caller's values, then "Text",
// which is left out if the run time has no text.
class VELT_API ERuntimeException : public EGeneric {
public:
  // With the run time's code, by default errno.
  ERuntimeException(int code = errno);
  ERuntimeException(int code, P const& a);
  ERuntimeException(int code, P const& a, P const& b);
};

// An error that an older library raises through OnSysLibExc. "Code", "Type",
// "Text". The texts must not be null.
class VELT_API ELegacyException : public EGeneric {
public:
  // As OnSysLibExc gets it.
  ELegacyException(char const* type, char const* text, int code);
};

// A COM result. The two constructors store different values.
class VELT_API EComException : public EGeneric {
public:
  // "HRESULT" as a number, "Text", "Description" (both wide, possibly empty).
  EComException(_com_error& error);
  // "Code" as a number, "HRESULT" as up to eight hexadecimal digits, then "Text",
  // "Description" and "Source" as far as they are available. `info` may be null; the
  // caller keeps its reference.
  EComException(long code, IErrorInfo* info);
};

// A pure virtual function was called. "Text".
class VELT_API EPurecallException : public EGeneric {
public:
  EPurecallException();
};

// A function without an implementation was called. "Text", "SourceFile",
// "SourceLine", "Function". The texts must not be null.
class VELT_API ENotImplemented : public EGeneric {
public:
  // The place of the function that is missing.
  ENotImplemented(char const* file, int line, char const* function);
};

// Two threads that hold a TMultiLock for reading both want to write: the second
// is refused, since each would wait for the other for ever. "Text", then "Status",
// the holds as TMultiLock::GetStatusString() tells them.
class VELT_API EDeadLockException : public EGeneric {
public:
  // `status` is the text of TMultiLock::GetStatusString().
  explicit EDeadLockException(std::string const& status);
};

// Thrown to end a thread. It is not an error and has no base class, so no handler of
// errors catches it.
class EThreadInterrupt {};

// These throw ESystemException with GetLastError(), or with the code.
[[noreturn]] VELT_API void ThrowSystemException();
[[noreturn]] VELT_API void ThrowSystemException(unsigned long code);

// Throws EComException(code, info), and releases the caller's reference to `info`,
// which may be null.
[[noreturn]] VELT_API void throw_EGeneric_from_com_error(long code, IErrorInfo* info);

// An older library raises its errors through this function: throws ELegacyException.
[[noreturn]] VELT_API void OnSysLibExc(char const* type, char const* text, int code);

// Throws EPurecallException. Has the signature of the run time's handler for pure
// calls; the client installs it, the library does not.
[[noreturn]] VELT_API void _my_purecall_translator();
