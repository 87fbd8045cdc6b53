// The one macro that exports a name from the library. What does not bear it is
// not visible outside the DLL.
#pragma once

#if defined(VELT_BUILDING)
#define VELT_API __declspec(dllexport)
#else
#define VELT_API __declspec(dllimport)
#endif
