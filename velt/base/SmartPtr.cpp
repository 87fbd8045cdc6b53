#include "velt/base/SmartPtr.h"

#include <charconv>
#include <cstdint>
#include <typeinfo>

#include "velt/base/DoNotInitialize.h"
#include "velt/base/TypeName.h"

const _DoNotInitialize DoNotInitialize;

SmartPtrObj::~SmartPtrObj() noexcept(false) = default;

std::string SmartPtrObj::describe() const {
  char digits[8];
  auto const low = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(this));
  auto const end = std::to_chars(digits, digits + sizeof digits, low, 16).ptr;
  return velt::detail::readable_name(typeid(*this)) + " {0x" + std::string(digits, end) + "}";
}
