// Guards for code that uses or serves COM. CoInitialize and CoInitializeEx enter a COM
// apartment for a scope:
//
//   void serve() {
//     class CoInitializeEx const apartment;
//     ...
//   }
//
// The classes have the names of the platform's functions. If both are declared, in
// either order, the plain name means the function, and `class` in front of it the
// class. So always write `class`.
//
// CImpersonationContext impersonates the COM client for a scope. If an exception leaves
// the scope, a line on Debug tells under which identity the failed work was done.
#pragma once

#include "velt/base/Export.h"

// These two throw the COM error of the platform's call: 0x80010106 if the thread is already
// in an apartment of the other kind. Guards of the same kind may be nested, and the
// thread leaves the apartment with the last one. A guard must be destroyed on the
// thread that made it.

// The thread gets an apartment of its own (STA); it should then pump messages.
class VELT_API CoInitialize {
public:
  CoInitialize();
  CoInitialize(CoInitialize const&) = delete;
  CoInitialize& operator=(CoInitialize const&) = delete;
  ~CoInitialize();
};

// The thread joins the multithreaded apartment of the process (MTA).
class VELT_API CoInitializeEx {
public:
  CoInitializeEx();
  CoInitializeEx(CoInitializeEx const&) = delete;
  CoInitializeEx& operator=(CoInitializeEx const&) = delete;
  ~CoInitializeEx();
};

// Use it while serving a COM call, and destroy it on the thread that made it.
class VELT_API CImpersonationContext {
public:
  // For the constructor: throw if the client cannot be impersonated.
  static constexpr bool NeedImpersonation = true;

  // With `raiseOnFailure` (pass NeedImpersonation), throws the COM error of
  // CoImpersonateClient if the client cannot be impersonated; outside a call that is
  // 0x80010117. Without it, the guard then does nothing, and the thread keeps its
  // identity.
  explicit CImpersonationContext(bool raiseOnFailure);
  CImpersonationContext() : CImpersonationContext(false) {}

  CImpersonationContext(CImpersonationContext const&) = delete;
  CImpersonationContext& operator=(CImpersonationContext const&) = delete;

  // Gives the thread its own identity back. Before that, during the unwinding of an
  // exception and if Debug has writers, writes to Debug
  //
  //   (!) Impersonated with level SecurityImpersonation as DOMAIN\account
  //
  // in three statements, so other threads' text may come between them. Leaves out what
  // is unavailable. Never throws.
  ~CImpersonationContext();

private:
  bool Impersonated = false;
};
