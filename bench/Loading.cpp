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

}  // namespace

std::vector<Row> loading_rows() {
  return {
      {"load_unload", loop([] { load_and_unload(L"velt_bench_copy.dll"); }),
       {{"empty library", 1.5, loop([] { load_and_unload(L"velt_bench_empty.dll"); })}}},
  };
}

}  // namespace bench
