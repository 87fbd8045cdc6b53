// Stacks and the names of addresses, from the platform's symbol engine (dbghelp). The
// engine is loaded when it is needed and unloaded after the last use. Without the engine
// stacks are empty and addresses have no names.
//
// Functions for which the engine has no debug information are named from the symbol table
// in the module's file, which is read at the first such address.
//
// Any thread may call any operation. One lock guards the engine; a walk takes it for each
// frame. The wait for it is alertable, except while the diagnostics of an exception are
// collected. Operations that do not say otherwise pass on the exceptions of queued calls,
// and throw ESystemException and std::bad_alloc.
//
// No operation waits for the loader lock with the engine's lock held. If another thread
// owns the loader lock, operations try for it for a second; then they do without starting
// the engine or finding new modules. A caller that owns the loader lock, as in DllMain,
// waits a second at most for the engine's lock and then gets no result.
#pragma once

#include <string>

#include "velt/base/Export.h"

struct _CONTEXT;

// Loads the engine or takes one more hold on it. Match each true with one SymCleanup();
// the last one unloads the engine. False if the engine is unavailable. The platform's
// dbghelp.h has functions of the same names, which take a process handle.
VELT_API bool SymInitialize();
VELT_API void SymCleanup();

// dbghelp.h makes StackWalk a macro. Suspend it, so that the function has one name whether
// that header is included before this one or after it.
#pragma push_macro("StackWalk")
#undef StackWalk

// Stores up to `max` return addresses, innermost first, without the first `skip`
// frames, and returns how many it stored. `thread` must be suspended or the calling
// thread. With a null context the calling thread walks its own stack, which begins with
// the caller of StackWalk; for another thread a null context gives no frames. Does not
// throw: a failure ends the walk.
VELT_API unsigned int StackWalk(unsigned __int64* frames, _CONTEXT* context, void* thread,
                                unsigned int skip, unsigned int max);

// The same function, under the name to which that macro changes the calls.
VELT_API unsigned int StackWalk64(unsigned __int64* frames, _CONTEXT* context, void* thread,
                                  unsigned int skip, unsigned int max)
    __asm__("_Z9StackWalkPyP8_CONTEXTPvjj");

#pragma pop_macro("StackWalk")

// Makes sure, once for each module, that the engine knows the module that contains the
// address. For an address in no module the first call returns false and all later calls
// return true. False also without the engine, and if its lock is unavailable for 20
// seconds. Does not throw.
VELT_API bool EnsureModuleSymbolsLoaded(unsigned __int64 address);

// Texts of single addresses. The caller must hold the engine.

// Base name of the module without folder and extension, or empty.
VELT_API std::string SymGetModuleFromAddress(unsigned __int64 address);
// "File.cpp#12", or empty.
VELT_API std::string SymGetSourceFromAddress(unsigned __int64 address);
// "name+1f", or "0x" and the low half of the address.
VELT_API std::string SymGetNameFromAddress(unsigned __int64 address);
// "module!name+1f[File.cpp#12]"; without a symbol "module!+1f", without a module
// "!0x" and the low half of the address. A name of more than 80 characters is
// shortened in its middle when a source follows.
VELT_API std::string SymGetFullNameFromAddress(unsigned __int64 address);

// One line for each frame, each preceded by "\n-> ", the outermost first. Does not throw:
// a failure ends the text.
VELT_API std::string SymGetStackTrace(unsigned __int64 const* frames, unsigned int count);
// The first frame outside the modules of SkipModulesForError, or 0. Without the engine,
// the first frame.
VELT_API unsigned __int64 SymGetActualErrorAddress(unsigned __int64 const* frames,
                                                   unsigned int count);
// The caller's own stack as text, 64 frames at most.
VELT_API std::string GetMyDebugStack();
