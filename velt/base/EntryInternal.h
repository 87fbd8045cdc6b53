// Functions that not every platform has, looked up in a module by their names.
#pragma once

#include <windows.h>

namespace velt::detail {

// Null if there is no such module or no such entry in it.
template <class Function>
Function* find_entry(HMODULE module, char const* name) noexcept {
  if (!module) return nullptr;
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// In a module that is already loaded.
template <class Function>
Function* find_entry(wchar_t const* module, char const* name) noexcept {
  return find_entry<Function>(GetModuleHandleW(module), name);
}

}  // namespace velt::detail
