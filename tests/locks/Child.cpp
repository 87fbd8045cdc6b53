// Ends while a thread is inside the word of a static lock of a DLL.
#include <windows.h>

#include <thread>

#include "velt/locks/Event.h"

extern "C" __declspec(dllimport) void hold_inner_word_of_static_lock();

int main() {
  TEvent held;
  std::thread([&held] {
    hold_inner_word_of_static_lock();
    held.Set();
    Sleep(INFINITE);
  }).detach();
  held.WaitForSignal();
}
