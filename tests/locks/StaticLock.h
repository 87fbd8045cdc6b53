// A DLL with a static lock. It is destroyed after the platform has ended all other
// threads of the process.
#pragma once

#ifdef VELT_STATIC_LOCK
#define VELT_STATIC_LOCK_API __declspec(dllexport)
#else
#define VELT_STATIC_LOCK_API __declspec(dllimport)
#endif

// And never lets it go.
VELT_STATIC_LOCK_API void hold_inner_word_of_static_lock();
