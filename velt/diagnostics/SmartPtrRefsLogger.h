// SmartPtrRefsLogger: finds the references that keep an object alive. The object has
// one logger. Its users report each reference that they take and release, and the
// logger reports the call stacks that took the remaining ones. A SmartPtr does not
// call it by itself.
#pragma once

#include <map>
#include <string>

#include "velt/base/Export.h"
#include "velt/locks/CriticalSection.h"

struct _tagSTACKFRAME64;

// Disabled and empty at first; until it is enabled, a call costs the test of a flag.
// A reference is identified by any address that the caller chooses, such as that of
// the pointer that holds it.
//
// Any thread may call the operations on references. EnableSmartPtrRefsLogger() is
// not synchronised: call it before the first of them.
class SmartPtrRefsLogger {
public:
  // Frames kept of each stack. The three innermost, which belong to the caller's
  // reference counting, are left out.
  static constexpr unsigned int MaxStackDepth = 4;

  SmartPtrRefsLogger() = default;

  // For disabled loggers. The critical section's state is copied bit for bit, as by
  // TCriticalSection. A copy of an enabled logger releases a hold on the symbol
  // engine that it never took.
  SmartPtrRefsLogger(SmartPtrRefsLogger const&) = default;
  SmartPtrRefsLogger& operator=(SmartPtrRefsLogger const&) = default;

  VELT_API ~SmartPtrRefsLogger();

  // Starts recording, and holds the symbol engine until the logger is destroyed. False
  // if the engine is unavailable; may be called again then. An enabled logger cannot
  // be disabled. Throws what SymInitialize() throws.
  VELT_API bool EnableSmartPtrRefsLogger();

  // Record a reference, or forget one. Ignore an address that is already recorded, or
  // not recorded. Return the number of references; 0 while disabled.
  [[gnu::always_inline]] long AddPointerRef(void const* reference) const {
    return Enabled ? add(reference) : 0;
  }
  [[gnu::always_inline]] long DelPointerRef(void const* reference) const {
    return Enabled ? remove(reference) : 0;
  }

  // The distinct stacks of all references but the given one, each with the number of
  // its references, fewest first:
  //
  //   ----------------------------------------------------------------------------
  //   References: 2
  //   Stack:
  //   -> outer frame
  //   -> inner frame
  //
  // A stack of one frame is headed by "Refs: 2, Stack: " alone. A stack that could not
  // be walked is empty. Stacks of the same depth count as one if the first half of
  // their frames agree.
  VELT_API std::string GetObjectReferences(void const* reference) const;

private:
#pragma pack(push, 1)
  struct RefStack {
    unsigned int Depth;                      // frames stored
    unsigned __int64 Frames[MaxStackDepth];  // innermost first

    bool operator<(RefStack const& other) const;
  };
#pragma pack(pop)

  VELT_API long add(void const* reference) const;
  VELT_API long remove(void const* reference) const;
  static RefStack walk(_tagSTACKFRAME64& frame);
  static std::string group_text(RefStack const& stack, unsigned int count);

  bool Enabled = false;
  mutable TCriticalSection Lock;
  mutable std::map<void const*, RefStack> References;
};
