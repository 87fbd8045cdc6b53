// Names of functions from the symbol table that the linker leaves in a module's file.
// The table names static functions too, whatever debug information the file has. A
// stripped file has no table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velt::detail {

struct function_place {
  std::string name;  // without parameters
  std::uint64_t displacement;
};

class coff_names {
public:
  // Reads the file of the module at `base`. There are no names if the file has no table,
  // cannot be read or has been replaced since the module was loaded. Throws
  // std::bad_alloc.
  coff_names(std::uint64_t base, wchar_t const* path);

  // The nearest function at or below the address, in the same section. `address` must not
  // be below the base.
  std::optional<function_place> find(std::uint64_t address) const;

private:
  class reader;
  struct place {
    std::uint32_t start;  // from the base
    std::uint32_t name;   // its position in `names`; 0 where a section begins or ends
  };

  std::uint64_t const base;
  std::vector<place> places;  // in the order of their starts
  std::string names = {'\0'};  // each ends in a zero
};

}  // namespace velt::detail
