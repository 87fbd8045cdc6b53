# Toolchain file: cross-compiles for 64-bit Windows with Debian's MinGW-w64 GCC, for the
# run time msvcrt.dll, and runs what was built under Wine. ucrt64.cmake is the same for
# the universal run time.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

if(NOT velt_tools)
  set(velt_tools x86_64-w64-mingw32)
  # The posix thread model is the one whose libstdc++ has std::thread and std::mutex.
  set(velt_thread_model -posix)
endif()
set(CMAKE_C_COMPILER ${velt_tools}-gcc${velt_thread_model})
set(CMAKE_CXX_COMPILER ${velt_tools}-g++${velt_thread_model})
set(CMAKE_RC_COMPILER ${velt_tools}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${velt_tools})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# In a package of velt there is no script, so Wine runs programs in the user's own prefix.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-under-wine)
  if(NOT EXISTS ${CMAKE_CROSSCOMPILING_EMULATOR})
    find_program(VELT_WINE NAMES wine64 wine PATHS /usr/lib/wine)
    set(CMAKE_CROSSCOMPILING_EMULATOR
      env WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml= ${VELT_WINE})
  endif()
endif()
