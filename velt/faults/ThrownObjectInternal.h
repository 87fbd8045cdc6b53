// Reads the object of a C++ throw from the exception record, while the throw is
// under way. Knows the records of this compiler's run time and those of modules
// that the platform's own compiler built.
#pragma once

#include <string>
#include <typeinfo>

#include "velt/base/Export.h"

struct _EXCEPTION_POINTERS;
struct _EXCEPTION_RECORD;

namespace velt::detail {

inline constexpr unsigned long own_throw_code = 0x20474343;
inline constexpr unsigned long foreign_throw_code = 0xE06D7363;

VELT_API bool is_typed_throw(_EXCEPTION_POINTERS const* pointers) noexcept;

// Whether a handler of `type` would catch the object.
VELT_API bool ThrownTypeIs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type);
// The object as `type`, or null.
VELT_API void* ThrownObjectAs(_EXCEPTION_POINTERS const* pointers, std::type_info const& type);
// Readable name of the object's own type, or empty if the type is unknown.
VELT_API std::string ThrownTypeName(_EXCEPTION_POINTERS const* pointers);

// Exceptions that left a translator are marked. The mark belongs to the thrown
// object. It stays when the object is thrown again, by `throw;` or by
// std::rethrow_exception, on any thread. A copy of the object is unmarked. A record
// that is no C++ throw of this compiler cannot be marked and never counts as marked.
void mark_born_of_fault(_EXCEPTION_RECORD const& record) noexcept;
bool is_born_of_fault(_EXCEPTION_RECORD const& record) noexcept;

// Whether the run time keeps its thrown objects as this library supposes. If not, they are
// not read: their types are unknown and they bear no mark.
bool knows_thrown_objects() noexcept;

}  // namespace velt::detail
