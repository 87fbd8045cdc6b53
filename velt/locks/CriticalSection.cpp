#include "velt/locks/CriticalSection.h"

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

// Without the platform's debug record, since each copy would free it.
TCriticalSection::TCriticalSection() {
  InitializeCriticalSectionEx(this, 0, CRITICAL_SECTION_NO_DEBUG_INFO);
}
TCriticalSection::~TCriticalSection() { DeleteCriticalSection(this); }

bool TCriticalSection::Lock(unsigned int) {
  throw ENotImplemented("CriticalSection", 18, "TCriticalSection::Lock");
}

void TCriticalSection::Lock() { EnterCriticalSection(this); }
void TCriticalSection::Unlock() { LeaveCriticalSection(this); }
