#include "tests/support/Imports.h"

#include <psapi.h>
#include <winternl.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace velt_test {
namespace detail {
namespace {

std::vector<Entry*> replaced;

Entry look_up_entry{"GetProcAddress"};

FARPROC platform_look_up(HMODULE module, char const* name) {
  auto const look_up = reinterpret_cast<decltype(&GetProcAddress)>(look_up_entry.platform);
  return (look_up ? look_up : GetProcAddress)(module, name);
}

FARPROC WINAPI look_up(HMODULE module, char const* name) {
  auto const found = platform_look_up(module, name);
  bool const is_number = reinterpret_cast<UINT_PTR>(name) >> 16 == 0;
  for (auto each = replaced.rbegin(); each != replaced.rend(); ++each) {
    auto const entry = *each;
    if (is_number || entry->name != name) continue;
    if (!entry->is_imported) entry->platform = reinterpret_cast<void*>(found);
    return reinterpret_cast<FARPROC>(entry->stand_in);
  }
  return found;
}

// Unless the module is gone.
void write(void** slot, void* value) {
  DWORD protection;
  if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection)) return;
  *slot = value;
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// Calls body(place) for each word of a module that may be the address of a call: of
// the import table, which is a section of its own, and of the module's data, where
// it keeps what it looked up. The program's data are the test's.
template <class Body>
void for_each_slot(wchar_t const* name, Body const& body) {
  auto const base = reinterpret_cast<char*>(GetModuleHandleW(name));
  if (!base) return;
  auto const headers = reinterpret_cast<IMAGE_NT_HEADERS*>(
      base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  auto const first = IMAGE_FIRST_SECTION(headers);
  for (auto section = first; section != first + headers->FileHeader.NumberOfSections; ++section) {
    bool const is_imports = !std::memcmp(section->Name, ".idata", 7);
    if (!is_imports && (!name || !(section->Characteristics & IMAGE_SCN_MEM_WRITE))) continue;
    auto const begin = reinterpret_cast<void**>(base + section->VirtualAddress);
    std::for_each(begin, begin + section->Misc.VirtualSize / sizeof *begin, [&](void*& slot) {
      if (slot) body(&slot);
    });
  }
}

// Where the call begins, in whichever modules have one of this name, or what stands
// in for it already.
std::vector<void*> addresses_of(std::string_view name) {
  std::vector<void*> found;
  for (auto const entry : replaced)
    if (entry->name == name) found.push_back(entry->stand_in);
  HMODULE modules[500];
  DWORD bytes = 0;
  EnumProcessModules(GetCurrentProcess(), modules, sizeof modules, &bytes);
  for (DWORD i = 0; i < bytes / sizeof *modules; ++i)
    if (auto const address = platform_look_up(modules[i], name.data()))
      found.push_back(reinterpret_cast<void*>(address));
  return found;
}

bool is_as_made(SECURITY_ATTRIBUTES const& attributes, SECURITY_DESCRIPTOR_CONTROL control) {
  auto const descriptor = static_cast<SECURITY_DESCRIPTOR const*>(attributes.lpSecurityDescriptor);
  return attributes.nLength == 24 && !attributes.bInheritHandle && descriptor->Revision == 1 &&
         descriptor->Control == control && !descriptor->Dacl && !descriptor->Owner;
}

}  // namespace

Patches::Patches(std::vector<Entry*> const& entries) : before(replaced.size()) {
  look_up_entry.stand_in = reinterpret_cast<void*>(look_up);
  if (replaced.empty()) replace(look_up_entry);
  for (auto const entry : entries) replace(*entry);
}

Patches::~Patches() {
  for (; !slots.empty(); slots.pop_back()) write(slots.back().first, slots.back().second);
  for (; replaced.size() > before; replaced.pop_back())
    for (auto const name : patched_modules)
      for_each_slot(name, [entry = replaced.back()](void** slot) {
        if (*slot == entry->stand_in) write(slot, entry->platform);
      });
}

void Patches::replace(Entry& entry) {
  auto const addresses = addresses_of(entry.name);
  entry.is_imported = false;
  for (auto const name : patched_modules)
    for_each_slot(name, [&](void** slot) {
      if (std::ranges::find(addresses, *slot) == addresses.end()) return;
      entry.platform = *slot;
      entry.is_imported = true;
      slots.emplace_back(slot, *slot);
      write(slot, entry.stand_in);
    });
  replaced.push_back(&entry);
}

std::string text_of(SECURITY_ATTRIBUTES const& attributes) {
  if (is_as_made(attributes, 0)) return "default access";
  return is_as_made(attributes, SE_DACL_PRESENT) ? "open access" : "unknown security";
}

}  // namespace detail

namespace {

std::mutex lock;

struct notification {
  ULONG flags;
  UNICODE_STRING const *path, *name;
};
using on_notification = void NTAPI(ULONG reason, notification const* module, void* context);

extern "C" NTSTATUS NTAPI LdrRegisterDllNotification(ULONG, on_notification*, void*, void**);
extern "C" NTSTATUS NTAPI LdrUnregisterDllNotification(void*);

}  // namespace

HMODULE load_velt(void (*patch)()) {
  auto const begin = [](ULONG reason, notification const* module, void* to_patch) {
    constexpr ULONG loaded = 1;
    std::wstring_view const name(module->name->Buffer, module->name->Length / sizeof(wchar_t));
    if (reason == loaded && name == L"velt.dll") reinterpret_cast<void (*)()>(to_patch)();
  };
  void* cookie;
  if (LdrRegisterDllNotification(0, begin, reinterpret_cast<void*>(patch), &cookie)) return nullptr;
  HMODULE const library = LoadLibraryW(L"velt.dll");
  LdrUnregisterDllNotification(cookie);
  return library;
}

Watch::Watch(std::string const& call, std::optional<void*> instead)
    : failing(call), answer(instead), outer(std::exchange(current, this)) {
  if (!outer) patches.emplace(known);
}

Watch::Watch(std::vector<Answer> const& script) : Watch() { answers = script; }

Watch::~Watch() {
  std::lock_guard const guard(lock);
  current = outer;
  EXPECT_TRUE(!answers || answers->empty()) << "answers are left after " << calls;
}

std::optional<Answer> Watch::answer_to(char const* call, std::uintptr_t usual_failure,
                                       std::initializer_list<std::string> arguments) {
  std::lock_guard const guard(lock);
  if (!current) return {};
  Watch& watch = *current;
  std::string list;
  for (auto const& argument : arguments) list += (list.empty() ? "" : ", ") + argument;
  watch.calls += call + ("(" + list + ")");
  if (watch.answers) {
    if (watch.answers->empty()) {
      ADD_FAILURE() << "no answer for the last of " << watch.calls;
      return Answer{usual_failure};
    }
    auto const answer = watch.answers->front();
    watch.answers->erase(watch.answers->begin());
    return answer;
  }
  if (watch.failing != call || watch.passing-- > 0) return {};
  watch.passing = 0;
  auto const instead = reinterpret_cast<std::uintptr_t>(watch.answer.value_or(nullptr));
  return Answer{watch.answer ? instead : usual_failure, watch.code};
}

}  // namespace velt_test
