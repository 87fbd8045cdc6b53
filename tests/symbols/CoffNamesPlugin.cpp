// Calls back through functions that it does not export. Compiled several times, with
// different namespaces and positions.
__asm__(".text\n.skip " VELT_POSITION ", 0x90");

namespace VELT_NAMESPACE {

[[gnu::noipa]] static int call(bool (*function)()) { return function() + 1; }

template <class T>
struct reader {
  [[gnu::noipa]] int read(bool (*function)()) const { return call(function) + 1; }
};

}  // namespace VELT_NAMESPACE

extern "C" {

__declspec(dllexport) int some_data = 1;

__declspec(dllexport) int call_back(bool (*function)()) {
  return VELT_NAMESPACE::reader<int>().read(function) + some_data;
}

}  // extern "C"
