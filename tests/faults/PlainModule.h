// Functions of a DLL that knows nothing of the library: built without its flags,
// linked without its personality routine.
#pragma once

#if defined(PLAIN_MODULE_BUILDING)
#define PLAIN_MODULE_API __declspec(dllexport)
#else
#define PLAIN_MODULE_API __declspec(dllimport)
#endif

namespace plain_module {

using callback = void (*)(void* context);

// Calls `function`, then `at_end`, from a destructor.
PLAIN_MODULE_API void call(callback function, callback at_end, void* context);
// Answers true if anything was caught.
PLAIN_MODULE_API bool catches(callback function, void* context);

}  // namespace plain_module
