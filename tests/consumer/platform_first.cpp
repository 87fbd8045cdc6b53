// Compiles only if the platform's names and the library's live side by side when
// the platform comes first; main.cpp has them the other way round.
#include <windows.h>

#include <comdef.h>

#include <velt/velt.h>
