// The switches of the diagnostics. They are plain variables, read without a lock at
// the events named below. A change takes effect with the next exception. Set them
// before other threads run.
#pragma once

#include <string>

#include "velt/base/Export.h"

// Write a dump when a fault becomes an exception.
extern VELT_API bool SaveMiniDumpOnStructuredException;

// Write a dump at each C++ throw of a type that is not excluded.
extern VELT_API bool SaveMiniDumpOnCppException;

// Watch throws. If false, no throw gets a dump or a stack.
extern VELT_API bool UseVEH;

// Attach module, name and stack to exceptions of the EGeneric family.
extern VELT_API bool ExtendDebugInformationFromException;

// Passed to the platform's dump writer; 0 is its normal dump.
extern VELT_API unsigned long MiniDumpType;

// Types whose throws write no dump, separated by ";". A type is excluded if its
// clean name occurs anywhere in this text. Not used for faults.
extern VELT_API std::string MiniDumpExcludedTypes;

// Path of a dump: module, kind, year, month, day, hour, minute, second,
// millisecond.
extern VELT_API char const* const MiniDumpFileFormat;

// Modules that are never blamed for a fault, separated by ";", case-insensitive.
extern VELT_API std::string SkipModulesForError;

// Sets ExtendDebugInformationFromException.
VELT_API void VeltDebugSetup(bool extended);
