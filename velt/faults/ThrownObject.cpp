#include <unwind.h>
#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "velt/base/TypeName.h"
#include "velt/faults/ThrownObjectInternal.h"

// The run time has it, its headers do not.
extern "C" __declspec(dllimport) char* __unDName(char* buffer, char const* decorated, int size,
                                                 void* (*allocate)(std::size_t),
                                                 void (*release)(void*), unsigned short flags);

namespace velt::detail {
namespace {

// This run time's throws: one parameter, the unwinder's exception object. The
// language's header lies in front of it and the thrown object behind it. An
// exception that was kept and is thrown again has a header of its own, which
// refers to the object and so to the first header.
struct throw_header {
  union {
    std::type_info const* type;
    void* kept_object;
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
constexpr std::uint64_t kept = 1;

struct own_object {
  std::type_info const* type;
  void* address;
};

// The header in front of the thrown object itself; null for other languages.
throw_header* header_of(EXCEPTION_RECORD const& record) noexcept {
  if (record.ExceptionCode != own_throw_code || record.NumberParameters < 1) return nullptr;
  auto const unwinder = reinterpret_cast<_Unwind_Exception*>(record.ExceptionInformation[0]);
  if (!unwinder || (unwinder->exception_class & ~kept) != language) return nullptr;
  auto const header = reinterpret_cast<throw_header*>(unwinder + 1) - 1;
  return unwinder->exception_class & kept ? static_cast<throw_header*>(header->kept_object) - 1
                                          : header;
}

std::optional<own_object> own_object_of(EXCEPTION_RECORD const& record) {
  auto const header = header_of(record);
  if (!header) return {};
  return own_object{header->type, header + 1};
}

// The mark of an exception that was born of a fault: its terminate handler, which
// the run time keeps in the object's header and calls if the exception ends the
// process.
[[noreturn]] void terminate_for_fault() {
  std::get_terminate()();
  std::abort();
}

// The run time's own test of a handler, with its conversions: null if the
// handler is not for the object. What a handler of a pointer gets is the pointer.
std::optional<void*> caught_as(std::type_info const& type, own_object const& object) {
  void* address = object.address;
  if (object.type->__is_pointer_p()) address = *static_cast<void**>(address);
  if (!type.__do_catch(object.type, &address, 1)) return {};
  return address;
}

// Throws of the platform's compiler: a magic number, the object, a descriptor
// and, on 64 bits, the base that the descriptor's references are relative to.
// The descriptor lists every type that the object can be caught as, its own
// first.
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

struct catchable_types {
  std::int32_t count;
  std::uint32_t entries[1];
};

struct throw_descriptor {
  std::uint32_t attributes, destructor, compatibility;
  std::uint32_t types;
};

// A type of a foreign module is compared by name with one of ours: that
// compiler's type information has another layout. Its names spell out class keys
// and the size of pointers, and have blanks elsewhere.
std::string comparable(std::string name) {
  for (std::string_view const word : {"class ", "struct ", "union ", "enum ", "__ptr64"})
    for (std::size_t at = 0; (at = name.find(word, at)) != name.npos;) {
      bool const begins = at == 0 || std::string_view("<, *&").find(name[at - 1]) != name.npos;
      if (begins)
        name.erase(at, word.size());
      else
        at += word.size();
    }
  std::erase(name, ' ');
  return name;
}

std::string readable_name(foreign_type const& type) {
  constexpr unsigned short type_only = 0x2000, no_32_bit_words = 0x0800;
  char const* const decorated = type.decorated + (type.decorated[0] == '.');
  std::unique_ptr<char, void (*)(void*)> const name(
      __unDName(nullptr, decorated, 0, std::malloc, std::free, type_only | no_32_bit_words),
      std::free);
  return name ? name.get() : decorated;
}

class foreign_object {
public:
  static std::optional<foreign_object> of(EXCEPTION_RECORD const& record) {
    auto const& parameters = record.ExceptionInformation;
    // A throw without operand has neither object nor descriptor.
    if (record.NumberParameters < 3 || !parameters[2]) return {};
    return foreign_object(reinterpret_cast<std::byte*>(parameters[1]),
                          *reinterpret_cast<throw_descriptor const*>(parameters[2]),
                          record.NumberParameters >= 4 ? parameters[3] : 0);
  }

  // The first entry of the type, if any; `direct`: not one in a virtual base.
  catchable_type const* find(std::type_info const& type, bool direct) const {
    auto const wanted = comparable(detail::readable_name(type));
    for (auto const reference : types) {
      auto const& entry = at<catchable_type>(reference);
      if (direct && entry.in_virtual_base()) continue;
      if (comparable(name_of(entry)) == wanted) return &entry;
    }
    return nullptr;
  }

  // The member offset is left out: a class of the family has EGeneric as its
  // first base.
  void* address_of(catchable_type const& entry) const {
    if (!entry.in_virtual_base()) return object;
    auto const holder = object + entry.table_offset;
    auto const table = *reinterpret_cast<std::byte const* const*>(holder);
    return holder + *reinterpret_cast<std::int32_t const*>(table + entry.entry_offset);
  }

  std::string own_name() const {
    return types.empty() ? "" : name_of(at<catchable_type>(types.front()));
  }

private:
  foreign_object(std::byte* thrown, throw_descriptor const& descriptor, ULONG_PTR image)
      : object(thrown), base(image) {
    if (!descriptor.types) return;
    auto const& list = at<catchable_types>(descriptor.types);
    types = {list.entries, static_cast<std::size_t>(std::max(list.count, 0))};
  }

  template <class T>
  T const& at(std::uint32_t reference) const {
    return *reinterpret_cast<T const*>(base + reference);
  }
  std::string name_of(catchable_type const& entry) const {
    return readable_name(at<foreign_type>(entry.type));
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
  return own_object_of(*pointers->ExceptionRecord);
}

std::string clean(std::string name) {
  for (std::string_view const prefix : {"class ", "std::"})
    if (name.starts_with(prefix)) name.erase(0, prefix.size());
  return name;
}

}  // namespace

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
