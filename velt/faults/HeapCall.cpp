#include "velt/faults/HeapCallInternal.h"

#include <algorithm>
#include <iterator>

#include "velt/base/EntryInternal.h"
#include "velt/base/LoadOrderInternal.h"

namespace velt::detail {
namespace {

VELT_LOAD_STEP(heap_calls_found) struct {
  HMODULE const module = GetModuleHandleW(L"ntdll");
  void (*const calls[3])() = {find_entry<void()>(module, "RtlAllocateHeap"),
                              find_entry<void()>(module, "RtlReAllocateHeap"),
                              find_entry<void()>(module, "RtlFreeHeap")};

  bool begins_at(ULONG64 address) const noexcept {
    return std::find(std::begin(calls), std::end(calls),
                     reinterpret_cast<void (*)()>(address)) != std::end(calls);
  }
} const heap;

}  // namespace

// The heap's calls call each other, so the outermost one counts.
ULONG64* leave_heap_call(CONTEXT& place, CONTEXT& walker) noexcept {
  ULONG64* end = nullptr;
  for (;;) {
    ULONG64 base, frame;
    auto const function = RtlLookupFunctionEntry(walker.Rip, &base, nullptr);
    if (!function || base != reinterpret_cast<ULONG64>(heap.module)) return end;
    void* table;
    RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, walker.Rip, function, &walker, &table, &frame,
                     nullptr);
    if (!heap.begins_at(base + function->BeginAddress)) continue;
    end = reinterpret_cast<ULONG64*>(walker.Rsp) - 1;
    place = walker;
  }
}

}  // namespace velt::detail
