#include "bench/Sizes.h"

#include <comutil.h>

#include <cstdio>

#include "velt/exceptions/EGeneric.h"
#include "velt/value/HoldersInternal.h"

namespace bench {
namespace {

struct Size {
  char const* name;
  std::size_t bytes;
};

constexpr Size of_types[] = {
    {"_value_t", sizeof(_value_t)},
    {"SmartPtr", sizeof(SmartPtr<SmartPtrObj>)},
    {"EGeneric", sizeof(EGeneric)},
    {"_time_t", sizeof(_time_t)},
};

constexpr char const* holders[] = {"_value_t_data_t", "_value_t_pdata_t", "_value_t_pcdata_t",
                                   "_value_t_cont_t"};

constexpr struct {
  char const* element;
  std::size_t bytes[4];
} of_holders[] = {
#define VELT_SIZES(T, TAG)                                                                \
  {#T,                                                                                    \
   {sizeof(_value_t_data_t<T>), sizeof(_value_t_pdata_t<T>), sizeof(_value_t_pcdata_t<T>), \
    sizeof(_value_t_cont_t<T>)}},
    VELT_ELEMENT_TYPES(VELT_SIZES)
#undef VELT_SIZES
};

void print_lines() {
  for (auto const& [name, bytes] : of_types) std::printf("%s\t%zu\n", name, bytes);
  for (auto const& [element, bytes] : of_holders)
    for (std::size_t i = 0; i < 4; ++i)
      std::printf("%s<%s>\t%zu\n", holders[i], element, bytes[i]);
}

void print_tables() {
  std::puts("Sizes in bytes");
  for (auto const& [name, bytes] : of_types) std::printf("  %-31s%12zu\n", name, bytes);
  std::puts("\nHolders, in bytes:             _data_t    _pdata_t   _pcdata_t     _cont_t");
  for (auto const& [element, bytes] : of_holders)
    std::printf("  %-28s%8zu%12zu%12zu%12zu\n", element, bytes[0], bytes[1], bytes[2], bytes[3]);
}

}  // namespace

void print_sizes(bool tab_separated) { tab_separated ? print_lines() : print_tables(); }

}  // namespace bench
