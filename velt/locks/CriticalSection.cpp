#include "velt/locks/CriticalSection.h"

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

TCriticalSection::TCriticalSection() { InitializeCriticalSection(this); }
TCriticalSection::~TCriticalSection() { DeleteCriticalSection(this); }

bool TCriticalSection::Lock(unsigned int) {
  throw ENotImplemented("CriticalSection", 18, "TCriticalSection::Lock");
}

void TCriticalSection::Lock() { EnterCriticalSection(this); }
void TCriticalSection::Unlock() { LeaveCriticalSection(this); }
