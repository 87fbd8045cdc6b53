// Stacks and the names of addresses, by the platform's symbol engine (dbghelp),
// which is loaded when it is needed and unloaded after the last use. Where it is
// missing everything here answers with nothing.
//
// Any thread may call any operation. One lock guards the engine; a walk takes it
// for each frame. Waiting for it is alertable: what a queued call throws passes
// out, as do ESystemException and std::bad_alloc, of all operations that do not
// say otherwise. It is not alertable while the diagnostics of an exception are
// collected. The engine's lock is never kept while waiting for the loader lock.
// While another thread holds that, the engine is neither started nor finds new
// modules, after a second of tries; and a caller that owns it, as in DllMain, waits
// for a second at most and then gets nothing.
#pragma once

#include <string>

#include "velt/base/Export.h"

struct _CONTEXT;

// Loads the engine or takes one more hold on it. Each true is to be matched by
// one SymCleanup(); the last unloads the engine. The platform's dbghelp.h has
// functions of the same names, which take a process handle.
VELT_API bool SymInitialize();
VELT_API void SymCleanup();

// dbghelp.h makes StackWalk a macro, whatever is included first.
#pragma push_macro("StackWalk")
#undef StackWalk

// Stores up to `max` return addresses, innermost first, without the first `skip`
// frames, and returns how many. `thread` must be suspended or the calling
// thread. A null context for the calling thread walks its own stack, the first
// frame being the caller of StackWalk; for another thread it gives no frames.
// Does not throw: what fails ends the walk.
VELT_API unsigned int StackWalk(unsigned __int64* frames, _CONTEXT* context, void* thread,
                                unsigned int skip, unsigned int max);

// The same function, where that macro stands.
VELT_API unsigned int StackWalk64(unsigned __int64* frames, _CONTEXT* context, void* thread,
                                  unsigned int skip, unsigned int max)
    __asm__("_Z9StackWalkPyP8_CONTEXTPvjj");

#pragma pop_macro("StackWalk")

// Makes sure, once for each module, that the engine knows the module around the
// address. False if there is none at the first asking; true for it from then on.
// False also without the engine, and if its lock is unavailable for 20
// seconds. Does not throw.
VELT_API bool EnsureModuleSymbolsLoaded(unsigned __int64 address);

// Texts of single addresses, for which the caller holds the engine.

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

// One line for each frame, each introduced by "\n-> ", the outermost first. Does
// not throw: what fails ends the text.
VELT_API std::string SymGetStackTrace(unsigned __int64 const* frames, unsigned int count);
// The first frame outside the modules of SkipModulesForError, or 0. Without the
// engine the first of all.
VELT_API unsigned __int64 SymGetActualErrorAddress(unsigned __int64 const* frames,
                                                   unsigned int count);
// The caller's own stack as text, 64 frames at most.
VELT_API std::string GetMyDebugStack();
