// Counts the kernel handles of this process, to show that none is lost.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

namespace velt_test {

namespace detail {

// What the system tells of one handle, and of all.
struct handle_entry {
  void* object;
  ULONG_PTR process;
  ULONG_PTR handle;
  ULONG access;
  USHORT creator, type;
  ULONG attributes, reserved;
};
struct handle_list {
  ULONG_PTR count, reserved;
  handle_entry entries[1];
};

// Counts in the list of all handles in the system; throws if there is none.
inline long listed_handles() {
  constexpr auto all_handles = static_cast<SYSTEM_INFORMATION_CLASS>(64);
  constexpr auto too_short = static_cast<NTSTATUS>(0xC0000004);
  std::vector<std::max_align_t> buffer(1024);
  NTSTATUS status;
  ULONG used;
  do {
    buffer.resize(buffer.size() * 2);
    auto const bytes = static_cast<ULONG>(buffer.size() * sizeof buffer[0]);
    status = NtQuerySystemInformation(all_handles, buffer.data(), bytes, &used);
  } while (status == too_short);
  if (status) throw std::runtime_error("the system does not list its handles");
  auto const list = reinterpret_cast<handle_list const*>(buffer.data());
  return static_cast<long>(
      std::count_if(list->entries, list->entries + list->count, [](handle_entry const& entry) {
        return entry.process == GetCurrentProcessId();
      }));
}

}  // namespace detail

inline long open_handles() {
  DWORD count;
  // Wine has the call but answers 0, which no process has.
  if (GetProcessHandleCount(GetCurrentProcess(), &count) && count)
    return static_cast<long>(count);
  return detail::listed_handles();
}

// Whether that many are left, soon: the platform closes the last ones of a thread
// that has ended when it finds the time.
inline bool open_handles_fall_to(long count) {
  for (int tries = 0; tries < 200; ++tries, Sleep(10))
    if (open_handles() <= count) return true;
  return false;
}

}  // namespace velt_test
