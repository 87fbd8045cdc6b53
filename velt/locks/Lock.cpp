#include "velt/locks/Lock.h"

#include <windows.h>

#include "velt/exceptions/ExceptionFamily.h"

void velt::detail::throw_wait_timeout() { ThrowSystemException(WAIT_TIMEOUT); }
