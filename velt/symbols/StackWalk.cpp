#include "velt/symbols/SymbolEngineInternal.h"

#undef StackWalk

using namespace velt::detail;

namespace {

bool is_calling_thread(HANDLE thread) {
  return thread == GetCurrentThread() || GetThreadId(thread) == GetCurrentThreadId();
}

// Moves the context from a function to its caller.
void leave_function(CONTEXT& context) {
  DWORD64 base, frame;
  void* data;
  auto const function = RtlLookupFunctionEntry(context.Rip, &base, nullptr);
  RtlVirtualUnwind(UNW_FLAG_NHANDLER, base, context.Rip, function, &context, &data, &frame,
                   nullptr);
}

bool is_code(DWORD64 address) {
  constexpr DWORD executable =
      PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  MEMORY_BASIC_INFORMATION region;
  return VirtualQuery(reinterpret_cast<void const*>(address), &region, sizeof region) &&
         region.State == MEM_COMMIT && (region.Protect & executable);
}

// A call to an address without code, such as null, has only pushed its return address. The
// engine cannot unwind from there, so the walk begins at the return address.
void leave_call_of_no_code(CONTEXT& context) {
  DWORD64 return_address;
  SIZE_T read;
  if (is_code(context.Rip) ||
      !ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<void const*>(context.Rsp),
                         &return_address, sizeof return_address, &read))
    return;
  context.Rip = return_address;
  context.Rsp += sizeof return_address;
}

ADDRESS64 flat(DWORD64 offset) { return {offset, 0, AddrModeFlat}; }

STACKFRAME64 start_of_walk(CONTEXT const& context) {
  STACKFRAME64 frame{};
  frame.AddrPC = flat(context.Rip);
  frame.AddrFrame = flat(context.Rbp);
  frame.AddrStack = flat(context.Rsp);
  return frame;
}

// The engine stops before a frame in a module that it does not know, so the module of the
// next frame is made known first. The next frame lies at the return address of this one;
// the first frame has none yet and lies at its own address.
bool step(STACKFRAME64& frame, CONTEXT& context, HANDLE thread, bool is_first) {
  auto const next = frame.AddrReturn.Offset ? frame.AddrReturn.Offset : frame.AddrPC.Offset;
  return ask_engine_at(next, [&](symbol_engine& engine, bool) {
    return is_first ? engine.begin_walk(thread, frame, context)
                    : engine.walk(IMAGE_FILE_MACHINE_AMD64, thread, frame, &context);
  });
}

unsigned int walk(unsigned __int64* frames, CONTEXT& context, HANDLE thread, unsigned int skip,
                  unsigned int max) {
  unsigned int count = 0;
  try {
    engine_hold const hold;
    if (!hold) return 0;
    auto frame = start_of_walk(context);
    for (bool is_first = true; count != max && step(frame, context, thread, is_first);
         is_first = false) {
      if (skip != 0)
        --skip;
      else
        frames[count++] = frame.AddrPC.Offset;
    }
  } catch (...) {
  }
  return count;
}

}  // namespace

// Never inlined or cloned: the number of frames to skip depends on it.
[[gnu::noipa]] unsigned int StackWalk(unsigned __int64* frames, _CONTEXT* context, void* thread,
                                      unsigned int skip, unsigned int max) {
  CONTEXT own;  // the walk changes it
  if (context) {
    own = *context;
    leave_call_of_no_code(own);
  } else {
    if (!is_calling_thread(thread)) return 0;
    RtlCaptureContext(&own);
    leave_function(own);
  }
  return walk(frames, own, thread, skip, max);
}

bool velt::detail::StackWalkStep(_tagSTACKFRAME64* frame, _CONTEXT* context, void* thread) {
  return try_asking_engine([=](symbol_engine& engine) {
    return engine.walk(IMAGE_FILE_MACHINE_I386, thread, *frame, context);
  });
}

[[gnu::noipa]] std::string GetMyDebugStack() {
  engine_hold const hold;  // for both the walk and the names
  return short_stack(nullptr, GetCurrentThread(), 1).text();
}
