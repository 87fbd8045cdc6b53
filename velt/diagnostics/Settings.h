// The switches of the diagnostics. Plain variables, read without a lock at the
// moment that is told for each: a change counts from the next exception on. Set
// them before other threads run.
#pragma once

#include <string>

#include "velt/base/Export.h"

// Write a dump when a fault becomes an exception.
extern VELT_API bool SaveMiniDumpOnStructuredException;

// Write a dump at each C++ throw of a type that is not excluded.
extern VELT_API bool SaveMiniDumpOnCppException;

// Watch throws at all. Without it no throw gets a dump or a stack.
extern VELT_API bool UseVEH;

// Attach module, name and stack to exceptions of the EGeneric family.
extern VELT_API bool ExtendDebugInformationFromException;

// Handed to the platform's dump writer; 0 is its normal dump.
extern VELT_API unsigned long MiniDumpType;

// Types whose throws make no dump, separated by ";". A type is excluded if its
// clean name occurs anywhere in this text. Not consulted for faults.
extern VELT_API std::string MiniDumpExcludedTypes;

// Path of a dump: module, kind, year, month, day, hour, minute, second,
// millisecond.
extern VELT_API char const* const MiniDumpFileFormat;

// Modules that are not to blame for a fault, separated by ";", in any case.
extern VELT_API std::string SkipModulesForError;

// Sets ExtendDebugInformationFromException.
VELT_API void VeltDebugSetup(bool extended);
