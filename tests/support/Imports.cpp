#include "tests/support/Imports.h"

#include <algorithm>
#include <mutex>

namespace velt_test {
namespace detail {
namespace {

std::vector<Entry*> replaced;

Entry look_up_entry{"GetProcAddress"};

FARPROC WINAPI look_up(HMODULE module, char const* name) {
  auto const found =
      reinterpret_cast<decltype(&GetProcAddress)>(look_up_entry.platform)(module, name);
  bool const is_number = reinterpret_cast<UINT_PTR>(name) >> 16 == 0;
  for (auto const entry : replaced) {
    if (is_number || entry->name != name) continue;
    if (!entry->platform) entry->platform = reinterpret_cast<void*>(found);
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

// The slots of the calls of this name.
std::vector<void**> slots_of(HMODULE module, std::string_view name) {
  auto const base = reinterpret_cast<char*>(module);
  auto const dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
  auto const headers = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  auto const& table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  std::vector<void**> found;
  auto import = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + table.VirtualAddress);
  for (; import->FirstThunk; ++import) {
    auto thunk = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
    auto slot = reinterpret_cast<void**>(base + import->FirstThunk);
    for (; thunk->u1.AddressOfData; ++thunk, ++slot) {
      if (IMAGE_SNAP_BY_ORDINAL(thunk->u1.Ordinal)) continue;
      auto const call = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + thunk->u1.AddressOfData);
      if (call->Name == name) found.push_back(slot);
    }
  }
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
  replaced.resize(before);
}

void Patches::replace(Entry& entry) {
  for (auto const name : patched_modules) {
    HMODULE const module = GetModuleHandleW(name);
    if (!module) continue;
    for (auto const slot : slots_of(module, entry.name)) {
      entry.platform = *slot;
      slots.emplace_back(slot, *slot);
      write(slot, entry.stand_in);
    }
  }
  replaced.push_back(&entry);
}

std::string text_of(SECURITY_ATTRIBUTES const& attributes) {
  if (is_as_made(attributes, 0)) return "default access";
  return is_as_made(attributes, SE_DACL_PRESENT) ? "open access" : "unknown security";
}

}  // namespace detail

namespace {

std::mutex lock;

}  // namespace

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
