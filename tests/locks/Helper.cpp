// The other process: opens named objects that a test has made, and does with
// them what the command line says.
//
//   own MUTEX EVENT         locks the mutex, sets the event, and stays until killed
//   answer EVENT SEMAPHORE  waits for the event, then gives one to the semaphore
//   leave                   ends while a thread is inside the word of a static lock
//                           of a DLL
//
// Ends with 0 when all went well and with 1 when the wait took too long. A
// failure ends it with the platform's code.
#include <windows.h>

#include <string>
#include <thread>

#include "tests/locks/StaticLock.h"
#include "velt/diagnostics/Settings.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/locks/Event.h"
#include "velt/locks/Mutex.h"
#include "velt/locks/Semaphore.h"

namespace {

constexpr int limit = 20'000;

int own(char const* mutex_name, char const* event_name) {
  TMutex mutex(DoNotInitialize);
  mutex.OpenMutexW(mutex_name, SYNCHRONIZE);
  TEvent ready(DoNotInitialize);
  ready.OpenEventW(event_name, EVENT_MODIFY_STATE);
  mutex.Lock();
  ready.Set();
  Sleep(limit);
  return 1;
}

int answer(char const* event_name, char const* semaphore_name) {
  TEvent question(DoNotInitialize);
  question.OpenEventW(event_name, SYNCHRONIZE);
  TSemaphore answers(DoNotInitialize);
  answers.OpenSemaphoreW(semaphore_name, SEMAPHORE_MODIFY_STATE);
  if (!question.Signaled(limit)) return 1;
  answers.Unlock();
  return 0;
}

int leave() {
  TEvent held;
  std::thread([&held] {
    hold_inner_word_of_static_lock();
    held.Set();
    Sleep(INFINITE);
  }).detach();
  return held.Signaled(limit) ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  SaveMiniDumpOnCppException = false;
  std::string const command = count > 1 ? arguments[1] : "";
  try {
    if (command == "own" && count == 4) return own(arguments[2], arguments[3]);
    if (command == "answer" && count == 4) return answer(arguments[2], arguments[3]);
    if (command == "leave") return leave();
  } catch (ESystemException const& error) {
    return error["Code"].as_int();
  }
  return ERROR_BAD_COMMAND;
}
