#include "velt/diagnostics/Settings.h"

#include "velt/base/LoadOrderInternal.h"

bool SaveMiniDumpOnStructuredException = true;
bool SaveMiniDumpOnCppException = true;
bool UseVEH = true;
bool ExtendDebugInformationFromException = false;
unsigned long MiniDumpType = 0;
VELT_LOAD_STEP(types_without_dumps) std::string MiniDumpExcludedTypes =
    "EThreadInterrupt;EStructuredException;C++";
char const* const MiniDumpFileFormat =
    "Dumps\\%s_%s_%04hd_%02hd_%02hd_%02hd_%02hd_%02hd_%03hd.dmp";
VELT_LOAD_STEP(modules_not_to_blame) std::string SkipModulesForError =
    "kernel32;ntdll;nt;velt;MSVCR100D;MSVCR100;MSVCP100D;MSVCP100;KERNELBASE";

void VeltDebugSetup(bool extended) { ExtendDebugInformationFromException = extended; }
