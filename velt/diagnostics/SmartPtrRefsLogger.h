// SmartPtrRefsLogger: who still holds an object that refuses to go? One logger in
// the object of interest is told of each reference that is taken and dropped, and
// reports the call stacks from which those that are left were taken. A SmartPtr
// does not call it by itself.
#pragma once

#include <map>
#include <string>

#include "velt/base/Export.h"
#include "velt/locks/CriticalSection.h"

struct _tagSTACKFRAME64;

// Disabled and empty at first, and as cheap as the test of a flag until it is
// enabled. A reference is any address by which the caller knows it again, such as
// that of the pointer that holds it.
//
// Any thread may call the operations on references. EnableSmartPtrRefsLogger() is
// not guarded and belongs before the first of them.
class SmartPtrRefsLogger {
public:
  // Frames kept of each stack, without the three innermost, which are those of the
  // caller's own counting.
  static constexpr unsigned int MaxStackDepth = 4;

  SmartPtrRefsLogger() = default;

  // For disabled loggers. The critical section's state is copied bit for bit, as by
  // TCriticalSection, and a copy of an enabled logger gives a hold on the symbol
  // engine back that it never took.
  SmartPtrRefsLogger(SmartPtrRefsLogger const&) = default;
  SmartPtrRefsLogger& operator=(SmartPtrRefsLogger const&) = default;

  VELT_API ~SmartPtrRefsLogger();

  // From here on it records, and holds the symbol engine until it is destroyed.
  // False if the engine is not to be had; may be tried again then. There is no way
  // back. Throws what SymInitialize() throws.
  VELT_API bool EnableSmartPtrRefsLogger();

  // Record a reference, of which a second with the same address is dropped, and
  // forget one, if it is there. Return how many there are; 0 while disabled.
  [[gnu::always_inline]] long AddPointerRef(void const* reference) const {
    return Enabled ? add(reference) : 0;
  }
  [[gnu::always_inline]] long DelPointerRef(void const* reference) const {
    return Enabled ? remove(reference) : 0;
  }

  // The distinct stacks of all references but the given one, each with their
  // number, from the few to the many:
  //
  //   ----------------------------------------------------------------------------
  //   References: 2
  //   Stack:
  //   -> outer frame
  //   -> inner frame
  //
  // A stack of one frame is headed by "Refs: 2, Stack: " alone, and one that could
  // not be walked is empty. Stacks of the same depth that agree in the first half
  // of their frames are taken for one.
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
