#include <windows.h>

#include "bench/Rows.h"

namespace bench {
namespace {

// The run-time libraries are in the process already.
void load_and_unload(wchar_t const* name) {
  HMODULE const library = LoadLibraryW(name);
  if (!library) abort();
  FreeLibrary(library);
}

// The same kernel objects as velt makes.
void load_beside_objects() {
  HANDLE objects[5];
  for (HANDLE& each : objects)
    each = &each == objects ? CreateEventW(nullptr, TRUE, FALSE, nullptr)
                            : CreateMutexW(nullptr, FALSE, nullptr);
  load_and_unload(L"velt_bench_empty.dll");
  for (HANDLE const each : objects) CloseHandle(each);
}

}  // namespace

std::vector<Row> loading_rows() {
  return {
      {"load_unload", loop([] { load_and_unload(L"velt_bench_copy.dll"); }),
       {{"empty library", 1.3, loop([] { load_and_unload(L"velt_bench_empty.dll"); })},
        {"and five objects", no_goal, loop([] { load_beside_objects(); })}}},
  };
}

}  // namespace bench
