// A library with the imports of velt and nothing else: one of each.
#include <objbase.h>
#include <oleauto.h>
#include <windows.h>
#include <winspool.h>

#include <stdexcept>

#include "bench/loading/Empty.h"

void (*const imports[])() = {
    reinterpret_cast<void (*)()>(RegCloseKey),   reinterpret_cast<void (*)()>(CloseHandle),
    reinterpret_cast<void (*)()>(CoUninitialize), reinterpret_cast<void (*)()>(SysFreeString),
    reinterpret_cast<void (*)()>(CharUpperW),    reinterpret_cast<void (*)()>(ClosePrinter),
};

void throw_and_catch() {
  try {
    throw std::runtime_error("");
  } catch (std::exception const&) {
  }
}
