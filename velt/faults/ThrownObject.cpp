#include <cxxabi.h>
#include <unwind.h>
#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "velt/base/LoadOrderInternal.h"
#include "velt/base/TypeName.h"
#include "velt/faults/ThrownObjectInternal.h"

// The run time exports the function, but no header declares it.
extern "C" __declspec(dllimport) char* __unDName(char* buffer, char const* decorated, int size,
                                                 void* (*allocate)(std::size_t),
                                                 void (*release)(void*), unsigned short flags);

namespace velt::detail {
namespace {

// This run time's throws have one parameter, the unwinder's exception object. The
// language's header ends with that object, and the thrown object follows it. An
// exception that is thrown again by std::rethrow_exception has a second header,
// which points to the object and thereby to the first header.
struct throw_header {
  union {
    std::type_info const* type;
    void* kept_object;  // in a second header
  };
  void (*destroy)(void*);
  std::terminate_handler unexpected, terminate;
  throw_header* next;
  int handlers, selector;
  unsigned char const *action, *table;
  _Unwind_Ptr landing_pad;
  void* caught;
  _Unwind_Exception unwinder;
};
static_assert(offsetof(throw_header, unwinder) == 80 && sizeof(throw_header) == 144,
              "the layout of libstdc++ with the platform's unwinding");

constexpr std::uint64_t language = 0x474E5543432B2B00;  // "GNUCC++", then the kind
constexpr std::uint64_t kept = 1;                       // the kind with a second header

// Of an object that the run time has made, but not thrown.
bool has_known_layout() noexcept {
  auto const object = abi::__cxa_allocate_exception(1);
  auto const destroy = [](void*) {};
  abi::__cxa_init_primary_exception(object, const_cast<std::type_info*>(&typeid(char)), destroy);
  auto const& header = static_cast<throw_header*>(object)[-1];
  bool const is_known = header.type == &typeid(char) && header.destroy == +destroy &&
                        header.terminate == std::get_terminate() &&
                        header.unwinder.exception_class == language;
  abi::__cxa_free_exception(object);
  return is_known;
}

VELT_LOAD_STEP(insides_compared) struct {
  bool const is_known = has_known_layout();
} const layout;

struct own_object {
  std::type_info const* type;
  void* address;
};

// The header in front of the thrown object itself; null for other languages. Follows
// the record's pointers unchecked, so the record must be known to be readable.
throw_header* header_of(EXCEPTION_RECORD const& record) noexcept {
  if (!layout.is_known || record.ExceptionCode != own_throw_code || record.NumberParameters < 1)
    return nullptr;
  auto const unwinder = reinterpret_cast<_Unwind_Exception*>(record.ExceptionInformation[0]);
  if (!unwinder || (unwinder->exception_class & ~kept) != language) return nullptr;
  auto const header = reinterpret_cast<throw_header*>(unwinder + 1) - 1;
  return unwinder->exception_class & kept ? static_cast<throw_header*>(header->kept_object) - 1
                                          : header;
}

// Any module may raise an exception with the code of a throw and arbitrary
// parameters. So every pointer of a record is checked before it is followed.
bool is_readable(void const* memory, std::size_t size) noexcept {
  constexpr DWORD readable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                             PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  auto at = static_cast<std::byte const*>(memory);
  auto const end = at + size;
  if (end < at) return false;
  while (at < end) {
    MEMORY_BASIC_INFORMATION region;
    // Reading a guard page would fault and take the guard from its stack.
    if (!VirtualQuery(at, &region, sizeof region) || region.State != MEM_COMMIT ||
        !(region.Protect & readable) || (region.Protect & PAGE_GUARD))
      return false;
    at = static_cast<std::byte const*>(region.BaseAddress) + region.RegionSize;
  }
  return true;
}

// Null if it cannot be read.
template <class T>
T const* readable(std::uintptr_t address) noexcept {
  auto const object = reinterpret_cast<T const*>(address);
  return is_readable(object, sizeof *object) ? object : nullptr;
}

// Whether a text can be read up to its end. Checks page by page, since the length is
// unknown, and gives up on texts too long for a name.
bool ends_readably(char const* text) noexcept {
  constexpr std::size_t page = 4096, longest = 16 * page;
  for (std::size_t size = 0; size < longest;) {
    auto const rest = page - reinterpret_cast<std::uintptr_t>(text + size) % page;
    if (!is_readable(text + size, rest)) return false;
    if (std::memchr(text + size, 0, rest)) return true;
    size += rest;
  }
  return false;
}

bool has_readable_header(std::uintptr_t object) noexcept {
  return readable<throw_header>(object - sizeof(throw_header));
}

std::optional<own_object> own_object_of(EXCEPTION_RECORD const& record) {
  auto const unwinder = record.ExceptionInformation[0];
  // The first check makes header_of() safe; the second is for the header that it
  // returns, which is another one if the exception was kept.
  if (record.NumberParameters < 1 || !has_readable_header(unwinder + sizeof(_Unwind_Exception)))
    return {};
  auto const header = header_of(record);
  if (!header || !has_readable_header(reinterpret_cast<std::uintptr_t>(header + 1)) ||
      !is_readable(header->type, sizeof *header->type))
    return {};
  return own_object{header->type, header + 1};
}

// The address of this function marks an exception that came from a fault. The run
// time keeps a terminate handler in each object's header, and calls it if the
// exception ends the process. So the mark must do the work of the handler it replaces.
[[noreturn]] void terminate_for_fault() {
  std::get_terminate()();
  std::abort();
}

// Applies the run time's own test of a handler, with its conversions. Empty if the
// handler would not catch the object. A handler of a pointer receives the pointer
// itself, not the address of the thrown one.
std::optional<void*> caught_as(std::type_info const& type, own_object const& object) {
  void* address = object.address;
  if (object.type->__is_pointer_p()) address = *static_cast<void**>(address);
  if (!type.__do_catch(object.type, &address, 1)) return {};
  return address;
}

// Throws of the platform's compiler have these parameters: a magic number, the
// object, a descriptor and, on 64 bits, the base address for the descriptor's
// references. The descriptor lists every type that the object can be caught as, its
// own type first.
struct foreign_type {
  void const* functions;
  void* readable;
  char decorated[1];
};

constexpr std::int32_t not_virtual = -1;

struct catchable_type {
  std::uint32_t properties;
  std::uint32_t type;
  std::int32_t member_offset;
  std::int32_t table_offset;  // of the pointer to the table of virtual bases
  std::int32_t entry_offset;  // in that table
  std::uint32_t size;
  std::uint32_t copy;

  bool in_virtual_base() const { return table_offset != not_virtual; }
};

struct throw_descriptor {
  std::uint32_t attributes, destructor, compatibility;
  std::uint32_t types;
};

// Types of foreign modules are compared with ours by name, because that compiler's
// type information has another layout. Its names contain class keys and the size of
// pointers, and place blanks differently, so all of these are removed.
std::string comparable(std::string name) {
  for (std::string_view const word : {"class ", "struct ", "union ", "enum ", "__ptr64"})
    for (std::size_t at = 0; (at = name.find(word, at)) != name.npos;) {
      // Otherwise the word is the end of a longer name.
      bool const begins = at == 0 || std::string_view("<, *&").find(name[at - 1]) != name.npos;
      if (begins)
        name.erase(at, word.size());
      else
        at += word.size();
    }
  std::erase(name, ' ');
  return name;
}

std::string readable_name(char const* decorated) {
  constexpr unsigned short type_only = 0x2000, no_32_bit_words = 0x0800;
  if (decorated[0] == '.') ++decorated;
  std::unique_ptr<char, void (*)(void*)> const name(
      __unDName(nullptr, decorated, 0, std::malloc, std::free, type_only | no_32_bit_words),
      std::free);
  return name ? name.get() : decorated;
}

class foreign_object {
public:
  static std::optional<foreign_object> of(EXCEPTION_RECORD const& record) {
    auto const& parameters = record.ExceptionInformation;
    constexpr ULONG_PTR first_magic = 0x19930520, last_magic = 0x19930522;
    if (record.NumberParameters < 3 || parameters[0] < first_magic || parameters[0] > last_magic)
      return {};
    // A throw without operand has neither object nor descriptor.
    auto const descriptor = readable<throw_descriptor>(parameters[2]);
    if (!descriptor || (record.NumberParameters >= 4 && !parameters[3])) return {};
    return foreign_object(reinterpret_cast<std::byte*>(parameters[1]), *descriptor,
                          record.NumberParameters >= 4 ? parameters[3] : 0);
  }

  // The first entry of the type, or null. With `direct`, skips virtual bases.
  catchable_type const* find(std::type_info const& type, bool direct) const {
    auto const wanted = comparable(detail::readable_name(type));
    for (auto const reference : types) {
      auto const entry = at<catchable_type>(reference);
      if (!entry || (direct && entry->in_virtual_base())) continue;
      if (comparable(name_of(entry)) == wanted) return entry;
    }
    return nullptr;
  }

  // Ignores the member offset: EGeneric is the first base of each class of its
  // family, so the offset is 0.
  void* address_of(catchable_type const& entry) const {
    if (!entry.in_virtual_base()) return object;
    auto const holder = object + entry.table_offset;
    auto const table = readable<std::uintptr_t>(reinterpret_cast<std::uintptr_t>(holder));
    auto const offset = table ? readable<std::int32_t>(*table + entry.entry_offset) : nullptr;
    return offset ? holder + *offset : nullptr;
  }

  std::string own_name() const {
    return types.empty() ? "" : name_of(at<catchable_type>(types.front()));
  }

private:
  foreign_object(std::byte* thrown, throw_descriptor const& descriptor, ULONG_PTR image)
      : object(thrown), base(image) {
    auto const count = descriptor.types ? at<std::int32_t>(descriptor.types) : nullptr;
    if (!count || *count <= 0) return;
    auto const first = reinterpret_cast<std::uint32_t const*>(count + 1);
    auto const size = static_cast<std::size_t>(*count);
    if (is_readable(first, size * sizeof *first)) types = {first, size};
  }

  template <class T>
  T const* at(std::uint32_t reference) const {
    return readable<T>(base + reference);
  }

  std::string name_of(catchable_type const* entry) const {
    auto const type = entry ? at<foreign_type>(entry->type) : nullptr;
    return type && ends_readably(type->decorated) ? readable_name(type->decorated) : "";
  }

  std::byte* object;
  ULONG_PTR base;
  std::span<std::uint32_t const> types;
};

std::optional<foreign_object> foreign_object_of(_EXCEPTION_POINTERS const* pointers) {
  auto const& record = *pointers->ExceptionRecord;
  return record.ExceptionCode == foreign_throw_code ? foreign_object::of(record) : std::nullopt;
}

std::optional<own_object> own_object_of(_EXCEPTION_POINTERS const* pointers) {
  auto const& record = *pointers->ExceptionRecord;
  return record.ExceptionCode == own_throw_code ? own_object_of(record) : std::nullopt;
}

std::string clean(std::string name) {
  for (std::string_view const prefix : {"class ", "std::"})
    if (name.starts_with(prefix)) name.erase(0, prefix.size());
  return name;
}

}  // namespace

bool knows_thrown_objects() noexcept { return layout.is_known; }

void mark_born_of_fault(EXCEPTION_RECORD const& record) noexcept {
  if (auto const header = header_of(record)) header->terminate = terminate_for_fault;
}

bool is_born_of_fault(EXCEPTION_RECORD const& record) noexcept {
  auto const header = header_of(record);
  return header && header->terminate == terminate_for_fault;
}

bool is_typed_throw(_EXCEPTION_POINTERS const* pointers) noexcept {
  if (!pointers || !pointers->ExceptionRecord) return false;
  auto const code = pointers->ExceptionRecord->ExceptionCode;
  return code == own_throw_code || code == foreign_throw_code;
}

bool ThrownTypeIs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type) {
  if (!is_typed_throw(pointers)) return false;
  if (auto const object = own_object_of(pointers)) return caught_as(type, *object).has_value();
  auto const object = foreign_object_of(pointers);
  return object && object->find(type, true);
}

void* ThrownObjectAs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type) {
  if (!is_typed_throw(pointers)) return nullptr;
  if (auto const object = own_object_of(pointers))
    return caught_as(type, *object).value_or(nullptr);
  auto const object = foreign_object_of(pointers);
  auto const entry = object ? object->find(type, false) : nullptr;
  return entry ? object->address_of(*entry) : nullptr;
}

std::string ThrownTypeName(_EXCEPTION_POINTERS const* pointers) {
  if (!is_typed_throw(pointers)) return {};
  if (auto const object = own_object_of(pointers)) return clean(readable_name(*object->type));
  auto const object = foreign_object_of(pointers);
  return object ? clean(object->own_name()) : std::string();
}

}  // namespace velt::detail
