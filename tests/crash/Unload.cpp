// Loads the library, unloads it, and goes on to throw.
#include <windows.h>

#include <cstdio>

int main() {
  for (int round = 0; round < 3; ++round) {
    HMODULE const library = LoadLibraryA("velt.dll");
    if (!library) return 1;
    try {
      throw round;
    } catch (int) {
      std::printf("loaded ");
    }
    FreeLibrary(library);
    if (GetModuleHandleA("velt.dll")) return 2;
    try {
      throw round;
    } catch (int) {
      std::printf("unloaded ");
    }
  }
}
