// CImpersonationContext: takes on the identity of the COM client for a scope. If
// an exception leaves the scope, Debug gets a line that tells as whom the failed
// work was done.
#pragma once

#include "velt/base/Export.h"

// Belongs to the call that is being served and to its thread: it must go on the
// thread that made it.
class VELT_API CImpersonationContext {
public:
  static constexpr bool NeedImpersonation = true;

  // With `raiseOnFailure`, or rather NeedImpersonation, a client whose identity
  // is not to be had is the COM error of CoImpersonateClient; outside a call that
  // is 0x80010117. Without, the guard then does nothing, and the work is done as
  // whoever the thread is.
  explicit CImpersonationContext(bool raiseOnFailure);
  CImpersonationContext() : CImpersonationContext(false) {}

  CImpersonationContext(CImpersonationContext const&) = delete;
  CImpersonationContext& operator=(CImpersonationContext const&) = delete;

  // Makes the thread itself again. While an exception is on its way, and if Debug
  // has writers, it writes before that
  //
  //   (!) Impersonated with level SecurityImpersonation as DOMAIN\account
  //
  // in three statements, between which other threads' text may come. What cannot
  // be found out is left out; nothing throws.
  ~CImpersonationContext();

private:
  bool Impersonated = false;
};
