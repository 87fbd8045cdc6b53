// Reads the object of a C++ throw from the exception record, while the throw is
// under way. Knows both kinds of records: those of this compiler's run time and
// those of modules that the platform's own compiler built.
#pragma once

#include <string>
#include <typeinfo>

struct _EXCEPTION_POINTERS;
struct _EXCEPTION_RECORD;

namespace velt::detail {

inline constexpr unsigned long own_throw_code = 0x20474343;
inline constexpr unsigned long foreign_throw_code = 0xE06D7363;

bool is_typed_throw(_EXCEPTION_POINTERS const* pointers) noexcept;

// Whether a handler of `type` would catch the object.
bool ThrownTypeIs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type);
// The object as `type`, or null.
void* ThrownObjectAs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type);
// Readable name of the object's own type, or empty if it is not known.
std::string ThrownTypeName(_EXCEPTION_POINTERS const* pointers);

// Exceptions that left a translator are marked. The mark belongs to the thrown
// object: it stays when that is thrown again, by `throw;` or from where it was
// kept, on any thread, and a copy of the object does not have it. Neither does
// anything for the record of something else than a C++ throw of this compiler.
void mark_born_of_fault(_EXCEPTION_RECORD const& record) noexcept;
bool is_born_of_fault(_EXCEPTION_RECORD const& record) noexcept;

}  // namespace velt::detail
