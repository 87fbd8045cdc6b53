// Compiles only if the platform's names and the library's live side by side when
// the platform comes first; main.cpp has them the other way round.
#include <windows.h>

#include <comdef.h>
#include <ctype.h>
#include <stdlib.h>
#include <tchar.h>

#include <velt/velt.h>
