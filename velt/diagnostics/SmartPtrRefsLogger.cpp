#include "velt/diagnostics/SmartPtrRefsLogger.h"

#include <windows.h>

#include <dbghelp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "velt/symbols/SymbolsInternal.h"

namespace {

constexpr std::uintptr_t size_of_slot = sizeof(void*);

ADDRESS64 flat(std::uintptr_t offset) { return {offset, 0, AddrModeFlat}; }

STACKFRAME64 frame_of_call(void* return_address, std::uintptr_t slot) {
  STACKFRAME64 frame{};
  frame.AddrPC = flat(reinterpret_cast<std::uintptr_t>(return_address));
  frame.AddrFrame = flat(slot - size_of_slot);
  frame.AddrStack = flat(0);
  return frame;
}

bool step(STACKFRAME64& frame) {
  return velt::detail::StackWalkStep(&frame, nullptr, GetCurrentThread());
}

// Skips the caller's functions that count its references. False if the walk ends in
// them.
bool leave_reference_machinery(STACKFRAME64& frame) {
  EnsureModuleSymbolsLoaded(frame.AddrPC.Offset);
  for (int i = 0; i < 2; ++i)
    if (step(frame)) EnsureModuleSymbolsLoaded(frame.AddrPC.Offset);
  return step(frame);
}

}  // namespace

bool SmartPtrRefsLogger::RefStack::operator<(RefStack const& other) const {
  if (Depth != other.Depth) return Depth < other.Depth;
  // An address has twice as many, so the second half of the frames is not compared.
  constexpr std::size_t bytes_of_frame = 4;
  return std::memcmp(&Frames, &other.Frames, Depth * bytes_of_frame) < 0;
}

SmartPtrRefsLogger::RefStack SmartPtrRefsLogger::walk(_tagSTACKFRAME64& frame) {
  RefStack stack{};
  if (!leave_reference_machinery(frame)) return stack;
  while (stack.Depth != MaxStackDepth) {
    EnsureModuleSymbolsLoaded(frame.AddrPC.Offset);
    if (!step(frame)) break;
    stack.Frames[stack.Depth++] = frame.AddrPC.Offset;
  }
  return stack;
}

SmartPtrRefsLogger::~SmartPtrRefsLogger() {
  try {
    if (Enabled) SymCleanup();
  } catch (...) {
  }
}

bool SmartPtrRefsLogger::EnableSmartPtrRefsLogger() {
  return Enabled || (Enabled = SymInitialize());
}

// Never inlined, so that the return address lies in the caller.
[[gnu::noipa]] long SmartPtrRefsLogger::add(void const* reference) const {
  auto const slot = reinterpret_cast<std::uintptr_t>(__builtin_dwarf_cfa()) - size_of_slot;
  auto frame = frame_of_call(__builtin_return_address(0), slot);
  auto const stack = walk(frame);
  TLock const guard(Lock);
  References.emplace(reference, stack);
  return static_cast<long>(References.size());
}

long SmartPtrRefsLogger::remove(void const* reference) const {
  TLock const guard(Lock);
  References.erase(reference);
  return static_cast<long>(References.size());
}

std::string SmartPtrRefsLogger::GetObjectReferences(void const* reference) const {
  using group = std::pair<RefStack, unsigned int>;
  std::map<RefStack, unsigned int> counts;
  {
    TLock const guard(Lock);
    for (auto const& [key, stack] : References)
      if (key != reference) ++counts[stack];
  }
  std::vector<group> groups(counts.begin(), counts.end());
  std::sort(groups.begin(), groups.end(),
            [](group const& left, group const& right) { return left.second < right.second; });
  std::string text;
  for (auto const& [stack, count] : groups) text += group_text(stack, count);
  return text;
}

std::string SmartPtrRefsLogger::group_text(RefStack const& stack, unsigned int count) {
  unsigned __int64 frames[MaxStackDepth];
  std::memcpy(frames, &stack.Frames, sizeof frames);
  auto const trace = SymGetStackTrace(frames, stack.Depth);
  auto const number = std::to_string(count);
  if (stack.Depth == 1) return "Refs: " + number + ", Stack: " + trace + "\n";
  return std::string(76, '-') + "\nReferences: " + number + "\nStack: " + trace + "\n";
}
