# What every target of the project shares: one folder for the binaries, the
# language, the warnings, and the run-time DLLs of the compiler.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON) # __int64 and the platform's headers are extensions
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# The default -O3 takes up to half as long again to build.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# Warnings are errors where velt is what is being built. As a part of another project it
# must not fail over a warning that only the compiler of that project knows.
add_library(velt_warnings INTERFACE)
target_compile_options(velt_warnings INTERFACE -Wall -Wextra -Wpedantic -Wno-long-long -Wshadow
  -Woverloaded-virtual -Wcast-qual -Wundef $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror>)

# velt_precompile(TARGET [HEADER...]): these and the usual ones, which are half of a
# compilation. Builds without tests do without, and show which sources lack a header.
function(velt_precompile target)
  if(VELT_TESTS)
    target_precompile_headers(${target} PRIVATE <windows.h> <algorithm> <atomic> <concepts>
      <map> <memory> <optional> <string> <string_view> <utility> <vector> ${ARGN})
  endif()
endfunction()

# The exception state is shared between the library and its clients only when
# both use the compiler's run-time DLLs, so these go beside the binaries.
function(velt_find_runtime_dlls result)
  set(found "")
  foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
      OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${path}")
      # On Windows itself the DLLs lie beside the compiler.
      cmake_path(GET CMAKE_CXX_COMPILER PARENT_PATH compiler_folder)
      set(path ${compiler_folder}/${name})
    endif()
    if(NOT EXISTS "${path}")
      message(FATAL_ERROR "The compiler's run-time library ${name} was not found.")
    endif()
    list(APPEND found ${path})
  endforeach()
  set(${result} ${found} PARENT_SCOPE)
endfunction()

velt_find_runtime_dlls(VELT_RUNTIME_DLLS)
include(VeltRuntime)
file(COPY ${VELT_RUNTIME_DLLS} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
