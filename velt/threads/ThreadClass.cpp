#include "velt/threads/ThreadClass.h"

#include <windows.h>

#include <cstdint>
#include <exception>
#include <string>
#include <typeinfo>

#include "velt/base/TypeName.h"
#include "velt/debug/DebugStream.h"
#include "velt/exceptions/ExceptionFamily.h"
#include "velt/faults/StackGuaranteeInternal.h"
#include "velt/faults/StructuredException.h"

namespace {

// "class:text", with a line feed before a text of several lines.
void write_exception(TDebugStreamSession& session, std::exception const& exception) {
  session << velt::detail::readable_name(typeid(exception)) << ':';
  std::string const text = exception.what();
  if (text.find('\n') != text.npos) session << '\n';
  session << text;
}

}  // namespace

TThreadClass::TThreadClass() noexcept : TThread(DoNotInitialize) {}

TThreadClass::TThreadClass(TThreadClass const& other)
    : TThread(other), InterruptState(other.InterruptState.load()) {}

TThreadClass& TThreadClass::operator=(TThreadClass const& other) {
  TThread::operator=(other);
  InterruptState = other.InterruptState.load();
  return *this;
}

// An exception out of a destructor ends the process while another one unwinds the
// stack, so an interruption has to wait then. An exception from here has to close
// the handle first, since the base's destructor could throw a second one.
TThreadClass::~TThreadClass() noexcept(false) {
  if (!IsValidHandle()) return;
  bool const may_throw = std::uncaught_exceptions() == 0;
  try {
    if (WaitForSingleObject(1000, may_throw) == WAIT_TIMEOUT) TerminateThread(0);
  } catch (...) {
    ::CloseHandle(DetachHandle());
    throw;
  }
}

void TThreadClass::StartThread() { CreateThread(StaticThreadEntry, this, 0); }

void TThreadClass::StopThread(unsigned int timeoutMs) {
  if (!IsValidHandle()) return;
  if (WaitForSingleObject(timeoutMs, TRUE) == WAIT_TIMEOUT) TerminateThread(0);
}

void TThreadClass::SuspendThread() { TThread::SuspendThread(); }
void TThreadClass::ResumeThread() { TThread::ResumeThread(); }
void TThreadClass::SetThreadPriority(int priority) { TThread::SetThreadPriority(priority); }

void TThreadClass::InterruptThread(unsigned int waitMs, unsigned int stopMs) {
  if (WaitForSingleObject(waitMs, TRUE) == WAIT_OBJECT_0) return;
  ask_to_end();
  StopThread(stopMs);
}

void TThreadClass::ask_to_end() {
  if (InterruptState == Running)
    QueueUserAPC(ThrowEThreadInterrupt, reinterpret_cast<std::uintptr_t>(this));
  else
    InterruptState.exchange(InterruptRequested);
}

// Looks at the state again, now on the thread itself: the body may have ended
// since the call was queued.
void TThreadClass::ThrowEThreadInterrupt() {
  if (InterruptState == Running) {
    interrupted = true;
    throw EThreadInterrupt();
  }
  InterruptState.exchange(InterruptRequested);
}

void TThreadClass::ThrowEThreadInterrupt(unsigned __int64 object) {
  reinterpret_cast<TThreadClass*>(object)->ThrowEThreadInterrupt();
}

void TThreadClass::OnException() {}

unsigned int TThreadClass::StaticThreadEntry(void* object) {
  redirect_structured_exceptions const redirection;
  velt::detail::guarantee_stack();
  static_cast<TThreadClass*>(object)->DynamicThreadEntry();
  return 0;
}

// Leaves a request to interrupt that came meanwhile.
void TThreadClass::body_has_ended() noexcept {
  int found = Running;
  InterruptState.compare_exchange_strong(found, Idle);
}

// The state goes back before the line is written, as the line waits for the
// stream: an interruption that arrives there finds no body to end.
void TThreadClass::DynamicThreadEntry() {
  int found = Idle;
  InterruptState.compare_exchange_strong(found, Running);
  if (found == InterruptRequested) return;
  interrupted = false;
  try {
    ThreadBody();
    body_has_ended();
  } catch (std::exception const& exception) {
    body_has_ended();
    {
      TDebugStreamSession session(Debug);
      session << "(!) Thread runaway with exception ";
      write_exception(session, exception);
      session << '\n';
    }
    OnException();
  } catch (EThreadInterrupt const&) {
    body_has_ended();
  } catch (...) {
    body_has_ended();
    Debug << "(!) Thread runaway with unknown exception\n";
    OnException();
  }
}
