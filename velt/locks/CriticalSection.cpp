#include "velt/locks/CriticalSection.h"

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

// The platform's record of the section for debugging would be freed by each of its
// copies.
TCriticalSection::TCriticalSection() {
  InitializeCriticalSectionEx(this, 0, CRITICAL_SECTION_NO_DEBUG_INFO);
}
TCriticalSection::~TCriticalSection() { DeleteCriticalSection(this); }

bool TCriticalSection::Lock(unsigned int) {
  throw ENotImplemented("CriticalSection", 18, "TCriticalSection::Lock");
}

void TCriticalSection::Lock() { EnterCriticalSection(this); }
void TCriticalSection::Unlock() { LeaveCriticalSection(this); }
