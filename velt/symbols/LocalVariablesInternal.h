// Text of the variables of a function, as the engine lists them.
#pragma once

#include <windows.h>

#include <dbghelp.h>

#include <cstdint>
#include <string>

namespace velt::detail {

// For holders of symbol_lock(): where the variables lie, and what was written of
// them.
extern std::uint64_t variable_frame_base;
extern std::string variable_text;

// In the form that the engine calls for each symbol. Adds a line for one of four
// bytes: type, name and value in both notations.
BOOL CALLBACK append_variable(SYMBOL_INFO* symbol, ULONG size, void* unused);

}  // namespace velt::detail
