#include "velt/threads/Thread.h"

#include <process.h>
#include <windows.h>

#include "velt/base/CheckInternal.h"

using velt::detail::check;

namespace {

constexpr DWORD failed = 0xFFFFFFFF;

}  // namespace

TThread::TThread(thread_entry entry, void* argument) { CreateThread(entry, argument, 0); }

void TThread::CreateThread(thread_entry entry, void* argument, unsigned long stackSize) {
  unsigned int id;
  auto const started = _beginthreadex(nullptr, stackSize, entry, argument, 0, &id);
  check(started != 0);
  handle = reinterpret_cast<void*>(started);
}

void TThread::SetThreadPriority(int priority) { check(::SetThreadPriority(handle, priority)); }

void TThread::DisableThreadPriorityBoost(bool disable) { SetThreadPriority(disable); }

void TThread::TerminateThread(unsigned long code) { check(::TerminateThread(handle, code)); }

void TThread::SetThreadToken(void* token) { check(::SetThreadToken(&handle, token)); }

void TThread::SuspendThread() { check(::SuspendThread(handle) != failed); }
void TThread::ResumeThread() { check(::ResumeThread(handle) != failed); }

void TThread::QueueUserAPC(void (*routine)(unsigned __int64), unsigned __int64 argument) {
  check(::QueueUserAPC(routine, handle, argument));
}

void TThread::Sleep(unsigned long ms, int alertable) { check(SleepEx(ms, alertable) != failed); }
void TThread::Pause() { Sleep(1, TRUE); }
