#include "velt/base/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace velt::detail {

std::string readable_name(std::type_info const& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> const name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return name ? name.get() : type.name();
}

}  // namespace velt::detail
