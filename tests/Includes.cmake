cmake_minimum_required(VERSION 3.25)

# Compares the includes of velt/ that point up with the table in CONTRIBUTING.md:
# one that is not named there fails, and so does a row that has become untrue.
set(folders base text time value exceptions locks faults debug symbols diagnostics threads os)

set(found "")
foreach(folder IN LISTS folders)
  list(FIND folders ${folder} level)
  file(GLOB sources ${ROOT}/velt/${folder}/*.h ${ROOT}/velt/${folder}/*.cpp)
  foreach(source IN LISTS sources)
    file(STRINGS ${source} lines REGEX "^#include \"velt/[a-z]+/")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE ".*velt/([a-z]+)/.*" "\\1" target "${line}")
      list(FIND folders ${target} target_level)
      if(target_level EQUAL -1)
        message(SEND_ERROR "${source} includes from ${target}, a folder without a place in the order")
      elseif(target_level GREATER level AND NOT "${folder};${target}" STREQUAL "value;exceptions")
        list(APPEND found "${folder} -> ${target}")
      endif()
    endforeach()
  endforeach()
endforeach()
list(REMOVE_DUPLICATES found)
list(SORT found)

file(STRINGS ${ROOT}/CONTRIBUTING.md rows REGEX "^\\| `[a-z]+` \\| `[a-z]+` \\|")
list(TRANSFORM rows REPLACE "^\\| `([a-z]+)` \\| `([a-z]+)` \\|.*" "\\1 -> \\2" OUTPUT_VARIABLE named)
list(SORT named)

if(NOT found STREQUAL named)
  message(FATAL_ERROR "Includes that point up: ${found}\nCONTRIBUTING.md names: ${named}")
endif()
