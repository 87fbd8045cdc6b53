// Calls back, so that a stack leads through this module. Not a tail call.
extern "C" __declspec(dllexport) int call_back(int (*function)(void*), void* argument) {
  int const result = function(argument);
  return result + 1;
}
