# SYMBOLIZE names the functions of a stripped library, from the file that kept its
# symbols, and refuses what has none.
function(symbolize report expected_status)
  file(WRITE ${FOLDER}/symbolize.txt "${report}")
  execute_process(COMMAND ${SYMBOLIZE} ${ARGN} INPUT_FILE ${FOLDER}/symbolize.txt
    OUTPUT_VARIABLE printed ERROR_VARIABLE complaint RESULT_VARIABLE status)
  if(NOT status EQUAL expected_status)
    message(SEND_ERROR "ends with ${status}: ${complaint}")
  endif()
  set(printed "${printed}" PARENT_SCOPE)
  set(complaint "${complaint}" PARENT_SCOPE)
endfunction()

set(module symbols_stripped_plugin)
symbolize("Stack:
-> ${module}!call_back+4
-> ${module}!stripped::reader<int>::read
-> ${module}!+1000
-> other!+1000
-> ${module}!unknown+4
" 0 ${FOLDER}/${module}.debug)
string(JOIN "\n" expected "^Stack:"
  "-> ${module}!call_back\\+4\\[CoffNamesPlugin.cpp#[0-9]+\\]"
  "-> ${module}!stripped::reader<int>::read\\[CoffNamesPlugin.cpp#[0-9]+\\]"
  "-> ${module}!_*[a-zA-Z][^\n]*"
  "-> other!\\+1000"
  "-> ${module}!unknown\\+4\n$")
if(NOT printed MATCHES "${expected}")
  message(SEND_ERROR "prints\n${printed}")
endif()

foreach(bad IN ITEMS ${module}.dll symbolize.txt missing)
  symbolize("-> ${module}!+1000\n" 2 ${FOLDER}/${bad})
  if(NOT complaint MATCHES "^[^\n]*${bad}[^\n]*\n$" OR printed)
    message(SEND_ERROR "says '${complaint}' of ${bad}")
  endif()
endforeach()
