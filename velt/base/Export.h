// The macro that exports a name from the library. Names without it are not
// visible outside the DLL.
#pragma once

#if defined(VELT_BUILDING)
#define VELT_API __declspec(dllexport)
#else
#define VELT_API __declspec(dllimport)
#endif
