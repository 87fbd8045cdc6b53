// CImpersonationContext: impersonates the COM client for a scope. If an exception leaves
// the scope, a line on Debug tells under which identity the failed work was done.
#pragma once

#include "velt/base/Export.h"

// Use it while serving a COM call, and destroy it on the thread that made it.
class VELT_API CImpersonationContext {
public:
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
