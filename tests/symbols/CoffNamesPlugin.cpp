// Calls back through functions that it does not export. Compiled several times, with
// different namespaces and positions.
__asm__(".text\n.skip " VELT_POSITION ", 0x90");

namespace VELT_NAMESPACE {

[[gnu::noipa]] static int call(int (*function)(void*), void* argument) {
  return function(argument) + 1;
}

template <class T>
struct reader {
  [[gnu::noipa]] int read(int (*function)(void*), void* argument) const {
    return call(function, argument) + 1;
  }
};

}  // namespace VELT_NAMESPACE

extern "C" {

__declspec(dllexport) int some_data = 1;

__declspec(dllexport) int call_back(int (*function)(void*), void* argument) {
  return VELT_NAMESPACE::reader<int>().read(function, argument) + some_data;
}

}  // extern "C"
