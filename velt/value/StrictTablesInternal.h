// The two strict tables of the value: which types convert to which when a holder is
// read, and when it is written. The holes are policy: a pair converts only if a
// table says so. docs/value.md shows the same tables, and the tests compare the
// holders with them.
#pragma once

#include <string_view>

#include "velt/value/ElementTypes.h"

namespace velt::detail {

// Rows: the type held. Columns: the type asked for. Both are in the order of the
// list of element types.
inline constexpr std::string_view strict_read_table[element_types::size] = {
    //                     time | const object | object | _bstr_t wstring string |
    //                     double bool __int64 ulong int
    /* _time_t         */ "x..........",
    /* const object    */ ".x.........",
    /* object          */ ".xx........",
    /* _bstr_t         */ "...xxx.....",
    /* std::wstring    */ "...xxx.....",
    /* std::string     */ "...xxx.....",
    /* double          */ "......x....",
    /* bool            */ ".......x.xx",
    /* __int64         */ "........x..",
    /* unsigned long   */ "........xxx",
    /* int             */ "......x.xxx",
};

// Rows: the type of the holder. Columns: the type given.
inline constexpr std::string_view strict_write_table[element_types::size] = {
    /* _time_t         */ "x..........",
    /* const object    */ ".xx........",
    /* object          */ "..x........",
    /* _bstr_t         */ "...xxx.....",
    /* std::wstring    */ "...xxx.....",
    /* std::string     */ "...xxx.....",
    /* double          */ "......x...x",
    /* bool            */ ".......x...",
    /* __int64         */ "........xxx",
    /* unsigned long   */ ".......x.xx",
    /* int             */ ".......x.xx",
};

template <class Row, class Column>
constexpr bool provided(std::string_view const (&table)[element_types::size]) {
  return table[place_in<Row, element_types>::value][place_in<Column, element_types>::value] == 'x';
}

template <class Held, class Asked>
inline constexpr bool reads_strictly = provided<Held, Asked>(strict_read_table);

template <class Holder, class Given>
inline constexpr bool writes_strictly = provided<Holder, Given>(strict_write_table);

}  // namespace velt::detail
